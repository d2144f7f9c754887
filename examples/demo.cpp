// A tour of zok_fluxtools as a host program sees it: load the module into the
// reference host, show what it registered, then use a ZOKDSMAP and a few
// message identifiers.
#include <cstdio>
#include <string>

#include "host.hpp"

namespace {

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
