// The messaging classes in scenarios the model test does not reach: re-entry
// and errors during delivery, null and lost identifiers, the message
// operations the query classes use, and the diagnostics.
#include "fw/fw_ident.hpp"
#include "fw/fw_message.hpp"
#include "fw/fw_messhndlr.hpp"
#include "support/messaging_testing.hpp"

namespace {

using msgtest::Messaging;
using msgtest::Observable;
using zok::ObjectRef;
using zok::Value;

// A delivery may change the set it is delivered from: the send goes on over
// its snapshot.  An error inside one ends the send and gives back what the send
// obtained, but not what an earlier delivery obtained for the program.
TEST_F(Messaging, DeliveriesMayChangeTheSetAndErrorsUnwind) {
    const ObjectRef h = handler();
    host.call_method(h, "SCOPEMESSAGE", {"tick"});
    const ObjectRef a = probe("tick", h);
    const ObjectRef b = probe("tick", h);
    const ObjectRef c = probe("tick", h);
    const ObjectRef inner = probe("tock", h);
    const ObjectRef tick = message("tick", h);
    ObjectRef late;
    on_execute[a.id] = [&](zok::Call&) {
        host.call_method(c, "UNREGISTER"); // c still gets this send: it is in the snapshot
        late = probe("tick", h);           // late does not
        host.call_method(message("tock", h), "SEND");
    };
    EXPECT_EQ(send(tick), (std::vector{a.id, inner.id, b.id, c.id}));
    EXPECT_EQ(filed(h, "tick"), (std::vector{a.id, b.id, late.id}));
    host.destroy(late);
    host.destroy(inner);
    host.call_method(c, "REGISTER");
    host.destroy(default_handler());
    const ObjectRef loose = message("tock");
    const size_t texts = host.live_texts();

    // A behaviour destroyed by an earlier one is still in the snapshot; the
    // host refuses to call a method on it.
    on_execute[a.id] = [&](zok::Call&) { host.destroy(b); };
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { send(tick, {std::string("payload")}); });
    EXPECT_EQ(executed, std::vector{a.id});
    // a obtains the default handler and an identifier (its use given back at
    // once), then c raises: the argument shared by both is freed on the way
    // out, what a obtained stays.
    size_t obtained = 0; // texts
    on_execute[a.id] = [&](zok::Call&) {
        obtained = host.live_texts();
        host.set_var("root", host.call_method(loose, "HANDLER"));
        host.set_var("ident", host.call_function("GET_FWIDENT", {"nested"}));
        host.call_procedure("FWIDENT_RELEASE", {zok::Ref{"ident"}});
        obtained = host.live_texts() - obtained;
    };
    on_execute[c.id] = [&](zok::Call&) {
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "%s", "boom");
    };
    expect_error(ZOK_MSG_TEXT, "boom", [&] { send(tick, {std::string("payload")}); });
    EXPECT_EQ(executed, (std::vector{a.id, c.id}));
    EXPECT_EQ(host.live_texts(), texts + obtained);
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(host.memory("ZOkfwBehaviorList").blocks, 0u);
    EXPECT_EQ(filed(h, "tick"), (std::vector{a.id, c.id}));
    const ObjectRef root = host.get_var("root").as_object();
    EXPECT_TRUE(root);
    EXPECT_EQ(default_handler(), root);
    const uint32_t ident = host.get_var("ident").as_pointer().id;
    EXPECT_EQ(host.heap_value(ident), Value("nested"));
    EXPECT_EQ(host.call_function("ROLLOVER_FWIDENT", {zok::Ref{"ident"}}).as_pointer().id, ident);
    EXPECT_EQ(check_all(), "");
}

// A null or lost identifier as the message is the identifier itself: only a
// comparison with a key raises "FWIdent corruption".  Scoping one is refused,
// since a key is the registry's own identifier of a text.
TEST_F(Messaging, NullAndLostIdentifiersMeetTheKeysOnlyWhenCompared) {
    const Value lost = host.call_function("GET_FWIDENT", {"gone"});
    host.call_procedure("FWIDENT_RELEASE", {lost});
    host.call_procedure("FWIDENT_GC");
    const ObjectRef scoping = handler();
    host.call_method(scoping, "SCOPEMESSAGE", {"tick"});
    for (const Value& ident : {Value(zok::PointerRef{0}), lost}) {
        SCOPED_TRACE(ident.to_string());
        // An empty default handler has no key to meet: a send from it ends there.
        const ObjectRef empty = host.call_method(message("x"), "HANDLER").as_object();
        EXPECT_EQ(host.call_method(empty, "ISSCOPED", {ident}).as_int(), 0);
        EXPECT_FALSE(host.call_method(empty, "BEHAVIORS", {ident}).as_object());
        EXPECT_TRUE(send_from(empty, ident).empty());
        expect_module_error(-1, "FWIdent corruption",
                            [&] { host.call_method(empty, "SCOPEMESSAGE", {ident}); });
        host.call_method(empty, "UNSCOPEMESSAGE", {ident});
        EXPECT_FALSE(host.heap_alive(empty.id)); // the empty default handler goes
        EXPECT_EQ(flux::default_handler(), 0u);
        for (const char* routine :
             {"ISSCOPED", "BEHAVIORS", "SENDMESSAGE", "UNSCOPEMESSAGE", "SCOPEMESSAGE"}) {
            SCOPED_TRACE(routine);
            const Observable before(host);
            expect_module_error(-1, "FWIdent corruption",
                                [&] { host.call_method(scoping, routine, {ident}); });
            EXPECT_EQ(Observable(host).since(before), "");
        }
    }
}

// The message operations offered to the query classes: a new message is as
// INIT makes it without keywords; a copy carries the text; messages order by text.
TEST_F(Messaging, MessagesAreMadeCopiedAndCompared) {
    const ObjectRef fresh{flux::new_message()};
    EXPECT_EQ(host.call_method(fresh, "MESSAGESTRING"), Value("Generic Message"));
    EXPECT_FALSE(host.get_tag(fresh, "MYHANDLER").as_object());
    const ObjectRef beta = message("beta", handler());
    const ObjectRef copy{flux::copy_message(beta.id)};
    EXPECT_EQ(host.call_method(copy, "MESSAGESTRING"), Value("beta"));
    EXPECT_FALSE(host.get_tag(copy, "MYHANDLER").as_object()); // the copy keeps the default
    EXPECT_EQ(flux::compare_messages(beta.id, copy.id), 0);
    EXPECT_GT(flux::compare_messages(beta.id, fresh.id), 0); // byte order: "b" after "G"
}

TEST_F(Messaging, TheCheckerAndThePictureShowTheChain) {
    const ObjectRef top = handler();
    const ObjectRef low = handler(top);
    host.call_method(top, "SCOPEMESSAGE", {"say \"hi\""});
    const ObjectRef b = probe("say \"hi\"", low);
    probe("tock"); // files at the root, so the default handler exists
    // A behaviour is drawn with its own text, not the scope's it is filed in.
    host.call_method(b, "SETMESSAGESTRING", {"moved"});
    const ObjectRef root{flux::default_handler()};
    const std::string dot = flux::handler_chain_dot(std::vector{low.id});
    const std::string t = std::to_string(top.id), l = std::to_string(low.id),
                      r = std::to_string(root.id), s = "s" + t + "_";
    for (const std::string& line : std::vector<std::string>{
             "  h" + l + " [shape=box, label=\"ZOKFWMESSAGEHANDLER\"];",
             "  h" + l + " -> h" + t + " [style=bold];",
             "  h" + t + " -> h" + r + " [style=bold];",
             "  h" + r +
                 " [shape=box, peripheries=2, label=\"ZOKFWMESSAGEHANDLER\\n(default handler)\"];",
             " [shape=ellipse, label=\"say \\\"hi\\\"\"];",
             "  b" + std::to_string(b.id) + " [shape=box, style=rounded, label=\"PROBE\\nmoved\"];",
             "  b" + std::to_string(b.id) + " -> " + s,
         })
        EXPECT_NE(dot.find(line), std::string::npos) << line << "\n" << dot;
    EXPECT_NE(flux::handler_chain_dot(std::vector{b.id}).find("label=\"no handler\""),
              std::string::npos);
    EXPECT_NE(flux::messagehandler_check(b.id).find("is no live message handler"),
              std::string::npos);
    const zok::Value table = host.get_tag(low, "BEHAVIORS");
    host.set_tag(low, "BEHAVIORS", zok::PointerRef{host.next_heap_id()});
    EXPECT_NE(flux::messagehandler_check(low.id).find("its scope table has gone"),
              std::string::npos);
    host.set_tag(low, "BEHAVIORS", table);

    // A behaviour filed without registration and then destroyed stays filed:
    // the checker names it, and the next send meets it.
    const ObjectRef added = probe("say \"hi\"", {}, false);
    host.call_method(top, "ADDBEHAVIOR", {added});
    host.destroy(added);
    EXPECT_NE(flux::messagehandler_check(top.id).find("no live behaviour"), std::string::npos);
    EXPECT_EQ(flux::messagehandler_check_structure(top.id), "");
    EXPECT_EQ(flux::messagehandler_check(low.id), "");
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { send_from(low, "say \"hi\""); });
}

} // namespace
