// A tour of zok_fluxtools as a host program sees it: load the module into the
// reference host, show what it registered, use a ZOKDSMAP and a few message
// identifiers, then send messages through a chain of three handlers and draw
// the chain.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fw/fw_messhndlr.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

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

using zok::ObjectRef;

// Behaviours of the tour: a program subclass of ZOKFWBEHAVIOR whose EXECUTE
// prints its label and the argument it was sent.
void define_printer(zok::Host& host) {
    host.define_struct("PRINTER", {{"LABEL", ZOK_T_STRING}}, "ZOKFWBEHAVIOR");
    host.add_procedure("PRINTER::EXECUTE", 1, 2, [&host](zok::Call& call) {
        const std::string label = host.get_tag(call.self(), "LABEL").as_string();
        const std::string arg = call.argc() == 2 ? call.arg(1).to_string() : "nothing";
        std::printf("      %s runs, given %s\n", label.c_str(), arg.c_str());
        return zok::Value();
    });
}

ObjectRef printer(zok::Host& host, const std::string& label, const char* text, ObjectRef at) {
    const ObjectRef b =
        host.new_object("PRINTER", {}, {{"HANDLER", at}, {"MESSAGESTRING", text}, {"REGISTER", 1}});
    host.set_tag(b, "LABEL", label);
    return b;
}

void show_scopes(zok::Host& host, const char* name, ObjectRef h) {
    std::printf("    %-7s scopes:", name);
    for (const zok::Value& text : host.call_method(h, "SCOPEDMESSAGES").elements()) {
        const zok::Value filed = host.call_method(h, "BEHAVIORS", {text});
        std::printf(" \"%s\" (%zu)", text.as_string().c_str(),
                    filed.is_array() ? filed.size() : size_t{0});
    }
    std::printf("\n");
}

void tour_messaging(zok::Host& host, const char* dot_path) {
    std::printf("\nMessages climb a chain of handlers to the first that scopes them:\n");
    define_printer(host);
    const ObjectRef app = host.new_object("ZOKFWMESSAGEHANDLER");
    const ObjectRef window = host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", app}});
    const ObjectRef button = host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", window}});
    host.call_method(app, "SCOPEMESSAGE", {"click"});
    host.call_method(app, "SCOPEMESSAGE", {"save"});
    host.call_method(button, "SCOPEMESSAGE", {"click"});
    printer(host, "app click", "click", app);
    printer(host, "button click", "click", button);
    printer(host, "saver (of the button)", "save", button);
    printer(host, "quitter (no handler)", "quit", {});
    const ObjectRef root = host.call_method(app, "HANDLER").as_object();
    std::printf("  button -> window -> app -> default handler %u\n", root.id);
    show_scopes(host, "button", button);
    show_scopes(host, "window", window);
    show_scopes(host, "app", app);
    show_scopes(host, "default", root);

    auto send = [&](const char* from_name, ObjectRef from, const char* text) {
        std::printf("    \"%s\" sent from the %s:\n", text, from_name);
        const ObjectRef m =
            host.new_object("ZOKFWMESSAGE", {}, {{"HANDLER", from}, {"MESSAGESTRING", text}});
        host.call_method(m, "SEND", {std::string("42")});
        host.destroy(m);
    };
    send("button", button, "click");
    send("window", window, "click");
    send("button", button, "save");
    send("window", window, "quit");
    std::printf("    \"%s\" sent from the app, which nobody scopes: (dropped)\n", "close");
    host.call_method(app, "SENDMESSAGE", {"close"});

    std::printf("  SCOPEMESSAGE \"save\" on the window moves the saver down to it:\n");
    host.call_method(window, "SCOPEMESSAGE", {"save"});
    show_scopes(host, "window", window);
    show_scopes(host, "app", app);
    if (std::ofstream dot(dot_path); dot) {
        const std::vector<uint32_t> handlers{button.id};
        dot << flux::handler_chain_dot(handlers);
        std::printf("  the chain is drawn in %s\n", dot_path);
    }
    std::printf("  UNSCOPEMESSAGE \"save\" on the window moves it back up:\n");
    host.call_method(window, "UNSCOPEMESSAGE", {"save"});
    show_scopes(host, "window", window);
    show_scopes(host, "app", app);
    for (const uint32_t id : {button.id, window.id, app.id})
        if (const std::string fault = flux::messagehandler_check(id); !fault.empty())
            std::printf("  CHECK FAILED: %s\n", fault.c_str());
}

// Behaviours that call program code, put calls off, and answer queries.
void tour_behaviors(zok::Host& host) {
    std::printf("\nBehaviours call a program's procedures, functions and methods:\n");
    const ObjectRef app = host.new_object("ZOKFWMESSAGEHANDLER");
    const ObjectRef view = host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", app}});
    host.call_method(app, "SCOPEMESSAGE", {"save"});
    host.add_procedure("LOG_SAVE", 1, 1, [](zok::Call& call) {
        std::printf("      procedure LOG_SAVE given %s\n", call.arg(0).to_string().c_str());
        return zok::Value();
    });
    host.add_function("COUNT_SAVES", 1, 1, [](zok::Call&) {
        static int32_t saves = 0;
        std::printf("      function COUNT_SAVES returns %d (dropped)\n", ++saves);
        return zok::Value(saves);
    });
    host.define_struct("DOCUMENT", {{"TITLE", ZOK_T_STRING}});
    host.add_procedure("DOCUMENT::SAVE", 1, 2, [&host](zok::Call& call) {
        std::printf("      method SAVE of \"%s\" given %s\n",
                    host.get_tag(call.self(), "TITLE").as_string().c_str(),
                    call.argc() == 2 ? call.arg(1).to_string().c_str() : "nothing");
        return zok::Value();
    });
    host.add_procedure("DOCUMENT::REDRAW", 1, 1, [&host](zok::Call& call) {
        std::printf("      method REDRAW of \"%s\"\n",
                    host.get_tag(call.self(), "TITLE").as_string().c_str());
        return zok::Value();
    });
    host.add_procedure("DOCUMENT::PROGRESS", 2, 2, [](zok::Call& call) {
        std::printf("      method PROGRESS given %s\n", call.arg(1).to_string().c_str());
        return zok::Value();
    });
    const ObjectRef doc = host.new_object("DOCUMENT");
    host.set_tag(doc, "TITLE", "notes.txt");
    const zok::Keywords at_app{{"HANDLER", app}, {"MESSAGESTRING", "save"}, {"REGISTER", 1}};
    auto with = [](zok::Keywords kw, zok::Keyword extra) {
        kw.push_back(std::move(extra));
        return kw;
    };
    host.new_object("ZOKFWPROCBEHAV", {}, with(at_app, {"PROCEDURE", "LOG_SAVE"}));
    host.new_object("ZOKFWFUNCBEHAV", {}, with(at_app, {"FUNCTION", "COUNT_SAVES"}));
    zok::Keywords on_doc = with(at_app, {"METHOD", "SAVE"});
    on_doc.push_back({"OBJECT", doc});
    const ObjectRef saver = host.new_object("ZOKFWOBJBEHAV", {}, on_doc);
    const ObjectRef save =
        host.new_object("ZOKFWMESSAGE", {}, {{"HANDLER", view}, {"MESSAGESTRING", "save"}});
    std::printf("    \"save\" sent from the view with \"draft\":\n");
    host.call_method(save, "SEND", {std::string("draft")});
    host.destroy(doc);
    std::printf("    the document is destroyed; \"save\" sent again:\n");
    host.call_method(save, "SEND");
    std::printf("    the method behaviour unregistered itself: ISREGISTERED = %lld\n",
                static_cast<long long>(host.call_method(saver, "ISREGISTERED").as_int()));

    std::printf("  Delayed behaviours turn many arming messages into one call:\n");
    const ObjectRef page = host.new_object("DOCUMENT");
    host.set_tag(page, "TITLE", "page 1");
    auto delayed = [&](const char* cls, const char* arming, const char* method) {
        host.new_object(cls, {},
                        {{"HANDLER", view},
                         {"MESSAGESTRING", arming},
                         {"DELAYMESSAGESTRING", "idle"},
                         {"OBJECT", page},
                         {"METHOD", method},
                         {"REGISTER", 1}});
    };
    delayed("ZOKFWDELAYBEHAV", "changed", "REDRAW");
    delayed("ZOKFWDELAYARGBEHAV", "progress", "PROGRESS");
    auto send = [&](const char* text, const zok::Args& args) {
        const ObjectRef m =
            host.new_object("ZOKFWMESSAGE", {}, {{"HANDLER", view}, {"MESSAGESTRING", text}});
        host.call_method(m, "SEND", args);
        host.destroy(m);
    };
    for (int i = 0; i < 5; ++i)
        send("changed", {});
    for (const int percent : {10, 40, 25})
        send("progress", {percent});
    std::printf("    five \"changed\" and progress 10, 40, 25 sent; then \"idle\":\n");
    send("idle", {});
    std::printf("    \"idle\" again (nothing armed):\n");
    send("idle", {});

    std::printf("  A query climbs the chain and brings back a copy of the answer:\n");
    host.new_object(
        "ZOKFWQUERYBEHAV", {},
        {{"HANDLER", app}, {"MESSAGESTRING", "title?"}, {"RESPONSE", "Untitled"}, {"REGISTER", 1}});
    const ObjectRef ask =
        host.new_object("ZOKFWQUERY", {}, {{"HANDLER", view}, {"MESSAGESTRING", "title?"}});
    std::printf("    before: %s\n", host.call_method(ask, "RESULT").to_string().c_str());
    std::printf("    SENDQUERY from the view: %s\n",
                host.call_method(ask, "SENDQUERY").to_string().c_str());
}

// A framework saved to a file, the session reset, the file restored: after the
// module's restore pass the same sends reach the same behaviours.
void tour_save(zok::Host& host, const std::string& path) {
    std::printf("\nA framework survives a save file:\n");
    const ObjectRef app = host.new_object("ZOKFWMESSAGEHANDLER");
    const ObjectRef view = host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", app}});
    for (const char* text : {"save", "changed", "idle", "title?"})
        host.call_method(app, "SCOPEMESSAGE", {text}); // apart from the earlier tours
    const ObjectRef doc = host.new_object("DOCUMENT");
    host.set_tag(doc, "TITLE", "kept.txt");
    std::vector<zok::Value> fw = {app, view};
    auto keep = [&](const char* cls, zok::Keywords kw) {
        fw.emplace_back(host.new_object(cls, {}, std::move(kw)));
        return fw.back().as_object();
    };
    keep("ZOKFWPROCBEHAV",
         {{"HANDLER", app}, {"MESSAGESTRING", "save"}, {"PROCEDURE", "LOG_SAVE"}, {"REGISTER", 1}});
    keep("ZOKFWOBJBEHAV", {{"HANDLER", view},
                           {"MESSAGESTRING", "save"},
                           {"METHOD", "SAVE"},
                           {"OBJECT", doc},
                           {"REGISTER", 1}});
    keep("ZOKFWDELAYBEHAV", {{"HANDLER", view},
                             {"MESSAGESTRING", "changed"},
                             {"DELAYMESSAGESTRING", "idle"},
                             {"OBJECT", doc},
                             {"METHOD", "REDRAW"},
                             {"REGISTER", 1}});
    keep("ZOKFWQUERYBEHAV", {{"HANDLER", app},
                             {"MESSAGESTRING", "title?"},
                             {"RESPONSE", "Kept title"},
                             {"REGISTER", 1}});
    const ObjectRef save = keep("ZOKFWMESSAGE", {{"HANDLER", view}, {"MESSAGESTRING", "save"}});
    const ObjectRef changed =
        keep("ZOKFWMESSAGE", {{"HANDLER", view}, {"MESSAGESTRING", "changed"}});
    const ObjectRef idle = keep("ZOKFWMESSAGE", {{"HANDLER", view}, {"MESSAGESTRING", "idle"}});
    const ObjectRef ask = keep("ZOKFWQUERY", {{"HANDLER", view}, {"MESSAGESTRING", "title?"}});
    host.set_var("FW", zok::Value::array(ZOK_T_OBJECT, fw));
    // The sends go by place in FW, so that they name the same objects after the restore.
    auto run = [&](const char* when) {
        const std::vector<zok::Value> objects = host.get_var("FW").elements();
        auto at = [&](ObjectRef o) {
            return objects[std::find(fw.begin(), fw.end(), zok::Value(o)) - fw.begin()].as_object();
        };
        std::printf("    %s: \"save\" sent from the view:\n", when);
        host.call_method(at(save), "SEND", {std::string("v1")});
        std::printf("    %s: \"idle\" sent (the delayed redraw was armed before the save):\n",
                    when);
        host.call_method(at(idle), "SEND");
        std::printf("    %s: the query's answer: %s\n", when,
                    host.call_method(at(ask), "SENDQUERY").to_string().c_str());
    };
    host.call_method(changed, "SEND");
    host.save(path, {"FW"});
    std::printf("  saved %zu framework objects and everything they reach to %s\n", fw.size(),
                path.c_str());
    run("before");
    host.reset_session();
    std::printf("  session reset: %zu heap variables left\n", host.heap_count());
    host.restore(path);
    host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Ref{"FW"}});
    host.call_procedure("FWIDENT_GC");
    std::printf(
        "  restored, restore pass run, copies of identifiers collected: %zu heap variables\n",
        host.heap_count());
    run("after");
    std::remove(path.c_str());
}

} // namespace

int main(int argc, char** argv) {
    try {
        zok::Host host;
        host.load_module(ZOK_Load, ZOK_ResetSession);
        std::printf("Loaded zok_fluxtools\n\n");
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

        tour_messaging(host, argc > 1 ? argv[1] : "handlers.dot");
        tour_behaviors(host);
        tour_save(host, argc > 2 ? argv[2] : "framework.zoksave");
        return 0;
    } catch (const zok::Error& e) {
        std::fprintf(stderr, "error %d: %s\n", e.code(), e.text().c_str());
        return 1;
    }
}
