// A tour of zok_fluxtools as a host program sees it: load the module into the
// reference host, show what it registered, then use a ZOKDSMAP and a few
// message identifiers.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "host.hpp"

namespace {

// Structures as a tree: each under its parent, children in name order.
void show_classes(const zok::Host& host, const std::string& parent, int depth) {
    for (const std::string& name : host.struct_names()) {
        if (host.parent_of(name) != parent)
            continue;
        std::printf("  %*s%s (%zu tags)\n", depth * 2, "", name.c_str(), host.tags_of(name).size());
        show_classes(host, name, depth + 1);
    }
}

// Routines grouped by class; plain routines last.
void show_routines(const zok::Host& host) {
    std::map<std::string, std::vector<zok::RoutineInfo>> by_class;
    for (const zok::RoutineInfo& r : host.routines()) {
        const size_t colons = r.name.find("::");
        by_class[colons == std::string::npos ? "(routines)" : r.name.substr(0, colons)].push_back(
            r);
    }
    for (const auto& [cls, routines] : by_class) {
        std::printf("  %s\n", cls.c_str());
        for (const zok::RoutineInfo& r : routines) {
            const size_t colons = r.name.find("::");
            const std::string shown =
                colons == std::string::npos ? r.name : r.name.substr(colons + 2);
            std::printf("    %-10s %-26s args %u..%u%s\n", r.is_function ? "function" : "procedure",
                        shown.c_str(), r.min_args, r.max_args, r.keywords ? ", keywords" : "");
        }
    }
}

void show_map(zok::Host& host, zok::ObjectRef map) {
    const zok::Value keys = host.call_method(map, "GETKEYS", {zok::Ref{"count"}});
    std::printf("  %lld entries:", static_cast<long long>(host.get_var("count").as_int()));
    for (const zok::Value& key : keys.elements()) {
        const zok::Value value = host.call_method(map, "GETDATA", {key});
        std::printf(" %s=%s", key.as_string().c_str(), value.to_string().c_str());
    }
    std::printf("\n");
}

} // namespace

int main() {
    try {
        zok::Host host;
        host.load_module(ZOK_MODULE_PATH);
        std::printf("Loaded %s\n\n", ZOK_MODULE_PATH);
        std::printf("Structures (classes under their parents):\n");
        show_classes(host, "", 0);
        const auto routines = host.routines();
        std::printf("\n%zu routines, by class:\n", routines.size());
        show_routines(host);
        std::printf("\n");

        std::printf("A ZOKDSMAP keeps copies of values in key order:\n");
        const zok::ObjectRef map = host.new_object("ZOKDSMAP");
        host.set_var("count", 0);
        for (const char* fruit : {"pear", "Apple", "fig", "apple"})
            host.call_method(map, "INSERT",
                             {fruit, static_cast<int32_t>(std::string(fruit).size())});
        show_map(host, map);
        host.call_method(map, "INSERT", {"fig", std::string("replaced")});
        host.call_method(map, "REMOVE", {"pear"});
        std::printf("after replacing fig and removing pear:\n");
        show_map(host, map);
        host.destroy(map);

        std::printf("\nMessage identifiers are counted and shared by text:\n");
        const zok::Value hello = host.call_function("GET_FWIDENT", {"hello"});
        const zok::Value again = host.call_function("GET_FWIDENT", {"hello"});
        const zok::Value other = host.call_function("GET_FWIDENT", {"Hello"});
        std::printf("  \"hello\" -> %u, again -> %u, \"Hello\" -> %u\n", hello.as_pointer().id,
                    again.as_pointer().id, other.as_pointer().id);
        host.call_procedure("FWIDENT_RELEASE", {hello});
        host.call_procedure("FWIDENT_RELEASE", {hello});
        host.call_procedure("FWIDENT_GC");
        std::printf("  after two releases and a collection, \"hello\" is %s; \"Hello\" is %s\n",
                    host.heap_alive(hello.as_pointer().id) ? "alive" : "freed",
                    host.heap_alive(other.as_pointer().id) ? "alive" : "freed");
        return 0;
    } catch (const zok::Error& e) {
        std::fprintf(stderr, "error %d: %s\n", e.code(), e.text().c_str());
        return 1;
    }
}
