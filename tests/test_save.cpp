// Save files end to end.  The messaging model saves and restores random
// frameworks, after a session reset and in a fresh host; here, what it does
// not build comes back as it was: armed delayed behaviours, a map of every
// value type, identifiers the program holds; and an allocation failure
// anywhere in that restore changes nothing.  Bad files are refused, each with
// its own error, and change nothing, also in a host that holds a live
// framework.
#include <fstream>
#include <tuple>

#include "support/messaging_testing.hpp"

using zok::ObjectRef;
using zok::Value;

const std::vector<std::string> kSaved = {"FW", "TARGET", "MAP", "IDENTS"};

// The messaging fixture with a target class whose HIT logs its argument, and a
// small framework that holds what the messaging model lacks (PROBE, a program
// subclass of a module class, among it), left in the program variables FW,
// TARGET, MAP and IDENTS and saved to a file small enough to damage at every
// byte, by a host that still holds it.
class SaveFile : public msgtest::Messaging {
protected:
    SaveFile() {
        define_target();
        build();
        host.save(path, kSaved);
        std::ifstream in(path, std::ios::binary);
        good.assign(std::istreambuf_iterator<char>(in), {});
    }
    void define_target() {
        host.define_struct("TARGET", {{"N", ZOK_T_LONG}});
        host.add_procedure("TARGET::HIT", 1, 2, [this](zok::Call& c) {
            log += "hit(" + (c.argc() > 1 ? c.arg(1).to_string() : "") + ") ";
            return Value();
        });
    }

    void build(bool with_probe = true) {
        const ObjectRef h = host.new_object("ZOKFWMESSAGEHANDLER");
        const ObjectRef target = host.new_object("TARGET");
        std::vector<Value> fw{h};
        zok::Keywords kw = {{"HANDLER", h},    {"DELAYMESSAGESTRING", "fire"},
                            {"METHOD", "HIT"}, {"OBJECT", target},
                            {"REGISTER", 1},   {"MESSAGESTRING", "tick"}};
        fw.emplace_back(host.new_object("ZOKFWDELAYBEHAV", {}, kw));
        kw.back() = {"MESSAGESTRING", "arm"};
        fw.emplace_back(host.new_object("ZOKFWDELAYARGBEHAV", {}, kw));
        if (with_probe)
            fw.emplace_back(host.new_object("PROBE", {}, {{"HANDLER", h}}));
        send(h, {"tick", 4, 9, 2}); // armed: the largest argument is kept
        const ObjectRef map = host.new_object("ZOKDSMAP");
        const Value values[] = {Value(int16_t(3)), Value(0.25), Value("text"),
                                Value(std::vector<std::string>{"a", "b"}), Value(target)};
        for (size_t k = 0; k < std::size(values); ++k)
            host.call_method(map, "INSERT", {"k" + std::to_string(k), values[k]});
        host.call_method(map, "REMOVE", {"k2"});
        std::vector<Value> idents;
        for (const char* text : {"arm", "held only"})
            idents.push_back(host.call_function("GET_FWIDENT", {text}));
        host.set_var("FW", Value::array(ZOK_T_OBJECT, fw));
        host.set_var("TARGET", target);
        host.set_var("MAP", map);
        host.set_var("IDENTS", Value::array(ZOK_T_POINTER, idents));
        host.call_procedure("FWIDENT_GC");
    }

    // Sends each text from `h`, and each number as "arm" with it.
    void send(ObjectRef h, const std::vector<Value>& sends) {
        for (const Value& v : sends)
            host.call_method(h, "SENDMESSAGE",
                             v.type() == ZOK_T_STRING ? zok::Args{v} : zok::Args{"arm", v});
    }

    // What the program observes of its framework.  The sends at the end
    // change it: take it once per state.
    std::string digest() {
        std::string out;
        const ObjectRef map = host.get_var("MAP").as_object();
        for (const Value& k : host.call_method(map, "GETKEYS").elements()) {
            const Value v = host.call_method(map, "GETDATA", {k});
            out += k.to_string() + "=" + std::to_string(v.type()) + ":" +
                   (v == host.get_var("TARGET") ? "target" : v.to_string()) + " ";
        }
        out += "\nuses " + zoktest::registry_counts();
        for (const Value& id : host.get_var("IDENTS").elements())
            out += "\nheld " + host.heap_value(id.as_pointer().id).to_string();
        log = "\n";
        const ObjectRef h = host.get_var("FW").elements()[0].as_object();
        send(h, {"fire", 5, "tick", "fire"});
        return out + log;
    }

    // Restores `bytes`, expecting `code` and a text that starts with the file's
    // name and then `what`; nothing may change.
    void refused(const std::string& bytes, const std::string& what,
                 int32_t code = ZOK_ERR_SAVE_FILE) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        const zok::Observation before = host.observe();
        const zok::Error e = expect_error(code, [&] { host.restore(path); });
        EXPECT_TRUE(e.text().starts_with("Save file " + path + " " + what)) << e.text();
        EXPECT_EQ(zok::difference(before, host.observe()), "");
    }

    std::string log;
    const zoktest::TempFile file;
    const std::string& path = file.path;
    std::string good;
};

TEST_F(SaveFile, EveryDamageAndEveryUnknownClassIsRefusedWithItsOwnErrorAndChangesNothing) {
    const size_t content = good.size() - 24;
    const std::string content_text = std::to_string(content);
    refused(good + "x",
            "has trailing bytes: 1 after the " + content_text + " content bytes its header states");

    // A file that cannot be read: missing, or a directory.
    for (const auto& [at, why] : {std::pair{path + ".none", "No such file or directory"},
                                  std::pair{file.dir.string(), "Is a directory"}})
        EXPECT_EQ(expect_error(ZOK_ERR_SAVE_FILE, [&] { host.restore(at); }).text(),
                  "Save file " + at + " cannot be opened: " + why + "; nothing was restored.");

    // Cut short at each byte.
    for (size_t at = 0; at < good.size(); ++at)
        refused(good.substr(0, at),
                at < 24
                    ? "is truncated: " + std::to_string(at) + " bytes, less than its 24-byte header"
                    : "is truncated: its header states " + content_text + " content bytes, " +
                          std::to_string(at - 24) + " are there");
    refused(good.substr(0, content + 23) + char(good.back() ^ 1),
            "is corrupt: its checksum does not match its content");
    // A header field damaged in its last byte.
    refused(good.substr(0, 7) + "X" + good.substr(8),
            "is not a save file: its magic number is wrong");
    refused(std::string(good).replace(11, 1, 1, '\2'),
            "has format version 33554433; this host reads version 1");

    // A sound checksum over unsound content: the decoder still refuses it.
    refused(zoktest::with_header(std::string(content, '\xff')),
            "is corrupt: the structure table runs past the end");
    std::string lower_name = good.substr(24);
    lower_name[lower_name.rfind("IDENTS") + 5] = 's';
    refused(zoktest::with_header(lower_name),
            "is corrupt: variable name IDENTs is not in upper case");

    // A sound file whose program class this host lacks or defines otherwise,
    // restored into a live framework that must stay as it is.
    const std::tuple<std::optional<std::vector<zok::TagSpec>>, int32_t, std::string> classes[] = {
        {std::nullopt, ZOK_ERR_UNKNOWN_CLASS,
         "holds objects of class PROBE, which this host does not define; nothing was restored."},
        {std::vector<zok::TagSpec>{{"EXTRA"}}, ZOK_ERR_STRUCT,
         "holds class PROBE with another layout (saved: parent ZOKFWBEHAVIOR; tags "
         "ZOKFWSAVEABLE_TOP:DOUBLE"},
    };
    for (const auto& [probe, code, text] : classes) {
        fresh_host(probe);
        define_target();
        build(false);
        refused(good, text, code);
    }
}

TEST_F(SaveFile, AfterAResetItComesBackAndAnAllocationFailureAnywhereInTheRestoreChangesNothing) {
    const std::string before = digest();
    host.reset_session();
    const zok::Observation empty = host.observe();
    // Fails the 1st, 2nd, ... allocation in turn until the restore goes through.
    uint64_t nth = 1;
    for (;; ++nth) {
        host.fail_allocation(nth);
        try {
            EXPECT_EQ(host.restore(path), kSaved);
            break;
        } catch (const zok::Error& e) {
            EXPECT_EQ(e.code(), ZOK_ERR_NO_MEMORY);
            EXPECT_EQ(e.text(),
                      "Unable to allocate memory to restore " + path + "; nothing was restored.");
        }
        host.clear_faults();
        ASSERT_EQ(zok::difference(empty, host.observe()), "") << "allocation " << nth;
    }
    host.clear_faults();
    EXPECT_GT(nth, 20u) << "the sweep reached too few allocations";
    // What the program restores besides the heap: every framework object's own
    // state, its own identifiers rolled over, the restored copies collected.
    host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Ref{"FW"}});
    std::vector<Value> idents;
    for (const Value& id : host.get_var("IDENTS").elements())
        idents.push_back(host.call_function("ROLLOVER_FWIDENT", {id}));
    host.set_var("IDENTS", Value::array(ZOK_T_POINTER, idents));
    host.call_procedure("FWIDENT_GC");
    EXPECT_EQ(flux::fwident_check(), "");
    EXPECT_EQ(digest(), before);
}
