// Save files end to end.  A seeded generator builds a framework of every class;
// a digest of what a program can observe of it is the same before the save and
// after restore, restore pass and collection, both after a session reset and in
// a fresh host.  Bad files are refused, each with its own error, and change
// nothing, also in a host that holds a live framework; so does an allocation
// failure anywhere in a restore.
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <tuple>

#include <zlib.h>

#include "support/messaging_testing.hpp"

namespace {

using zok::ObjectRef;
using zok::Ref;
using zok::Value;

const std::vector<std::string> kTexts = {"alpha", "beta", "gamma", "delta"};
const std::vector<std::string> kAsks = {"ask0", "ask1"};
const std::string kArgArm = "argarm"; // the only text sent with an argument
const std::vector<std::string> kAllTexts = {"alpha", "beta", "gamma", "delta",
                                            "ask0",  "ask1", "argarm"};

// Files live in memory where the system offers it: the damage sweeps write thousands.
std::string temp_path(const std::string& name) {
    const std::filesystem::path shm = "/dev/shm";
    return ((std::filesystem::is_directory(shm) ? shm : std::filesystem::temp_directory_path()) /
            (name + "." + std::to_string(::getpid()) + ".zoksave"))
        .string();
}

// Removes its file however the test ends.
struct TempFile {
    const std::string path;
    ~TempFile() { std::filesystem::remove(path); }
};

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// A host program: the module, a program subclass of a module class (PROBE),
// target objects, the routines behaviours call, and a log of every call that
// names objects by their place in the program's arrays, not by identifier.
class Program {
public:
    enum class Probe { Defined, Missing, Changed };
    explicit Program(Probe probe = Probe::Defined) {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        if (probe != Probe::Missing)
            host.define_struct("PROBE",
                               probe == Probe::Changed ? std::vector<zok::TagSpec>{{"EXTRA"}}
                                                       : std::vector<zok::TagSpec>{},
                               "ZOKFWBEHAVIOR");
        host.define_struct("TARGET", {{"N", ZOK_T_LONG}});
        host.add_procedure("PROBE::EXECUTE", 1, 2,
                           [this](zok::Call& c) { return note("probe", c); });
        host.add_procedure("TARGET::HIT", 1, 2, [this](zok::Call& c) { return note("hit", c); });
        host.add_procedure("RECORD", 0, 1, [this](zok::Call& c) { return note("record", c); });
        host.add_function("ANSWER", 0, 1, [this](zok::Call& c) {
            note("answer", c);
            return Value("answered");
        });
    }

    std::string name(const Value& v) {
        if (v.type() != ZOK_T_OBJECT)
            return v.to_string();
        for (const char* var : {"FW", "TARGETS", "MAPS"})
            if (host.has_var(var)) {
                const std::vector<Value> all = host.get_var(var).elements();
                for (size_t i = 0; i < all.size(); ++i)
                    if (all[i] == v && v.as_object())
                        return var + std::to_string(i);
            }
        if (!v.as_object())
            return "null";
        if (v.as_object().id == flux::default_handler())
            return "default";
        for (const Value& owner :
             host.has_var("FW") ? host.get_var("FW").elements() : std::vector<Value>{})
            if (host.isa(owner.as_object(), "ZOKFWDELAYBEHAV") &&
                host.get_tag(owner.as_object(), "SUB_BEHAVIOR") == v)
                return "inner of " + name(owner);
        return "unlisted";
    }
    Value note(const char* what, zok::Call& c) {
        std::string line = std::string(what) + "(";
        for (int32_t i = 0; i < c.argc(); ++i)
            line += name(c.arg(i)) + ",";
        log += line + ")\n";
        return Value();
    }

    zok::Host host;
    std::string log;
};

// The behaviour classes: the keyword that names what each calls, and which
// texts it listens to (0 plain, 1 plain or the argument text, 2 the argument
// text, 3 a query's).
struct Kind {
    const char* cls;
    const char* routine_keyword;
    const char* routine;
    int texts;
    bool delayed;
};
const Kind kKinds[] = {
    {"PROBE", nullptr, nullptr, 1, false},
    {"ZOKFWPROCBEHAV", "PROCEDURE", "RECORD", 1, false},
    {"ZOKFWFUNCBEHAV", "FUNCTION", "ANSWER", 0, false},
    {"ZOKFWOBJBEHAV", "METHOD", "HIT", 0, false},
    {"ZOKFWDELAYBEHAV", "METHOD", "HIT", 0, true},
    {"ZOKFWDELAYARGBEHAV", "METHOD", "HIT", 2, true},
    {"ZOKFWQUERYBEHAV", nullptr, nullptr, 3, false},
};

// Sends `m`, with `arg` when its text is the one sent with an argument.
void send(zok::Host& host, ObjectRef m, int32_t arg) {
    const bool with_arg = host.call_method(m, "MESSAGESTRING") == Value(kArgArm);
    host.call_method(m, "SEND", with_arg ? zok::Args{arg} : zok::Args{});
}

// Builds a random framework in `p` and leaves it in the program variables FW
// (framework objects), TARGETS (some dead), MAPS and IDENTS.
void generate(Program& p, uint32_t seed, size_t scale = 4, bool with_probe = true) {
    zok::Host& host = p.host;
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    auto text = [&] { return kTexts[pick(kTexts.size())]; };
    std::vector<Value> fw, targets, maps, idents;
    std::vector<ObjectRef> handlers, behaviours, messages, queries;
    auto any_handler = [&]() -> ObjectRef {
        return handlers.empty() || pick(4) == 0 ? ObjectRef{} : handlers[pick(handlers.size())];
    };
    auto keep = [&](ObjectRef o, std::vector<ObjectRef>& kind) {
        fw.emplace_back(o);
        kind.push_back(o);
        return o;
    };
    for (size_t i = 0, n = 1 + pick(scale); i < n; ++i)
        keep(host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", any_handler()}}), handlers);
    for (size_t i = 0; i < 3; ++i)
        targets.emplace_back(host.new_object("TARGET"));
    auto target = [&] { return targets[pick(targets.size())].as_object(); };
    for (int i = 0, n = static_cast<int>(2 * scale + pick(4 * scale)); i < n; ++i) {
        const Kind& kind = kKinds[with_probe ? (i == 0 ? 0 : pick(std::size(kKinds)))
                                             : 1 + pick(std::size(kKinds) - 1)];
        const std::string texts[] = {text(), pick(3) == 0 ? kArgArm : text(), kArgArm,
                                     kAsks[pick(kAsks.size())]};
        zok::Keywords kw{{"HANDLER", any_handler()},
                         {"REGISTER", pick(5) != 0 ? 1 : 0},
                         {"MESSAGESTRING", texts[kind.texts]}};
        if (kind.routine_keyword)
            kw.push_back({kind.routine_keyword, kind.routine});
        if (kind.routine && kind.routine == std::string("HIT"))
            kw.push_back({"OBJECT", target()});
        if (kind.delayed)
            kw.push_back({"DELAYMESSAGESTRING", text()});
        if (kind.cls == std::string("ZOKFWQUERYBEHAV")) {
            const Value responses[] = {Value(int32_t(i)), Value("r" + std::to_string(i)),
                                       Value(0.5 * i), Value(std::vector<int32_t>{i, -i})};
            kw.push_back({"RESPONSE", responses[pick(4)]});
        }
        keep(host.new_object(kind.cls, {}, kw), behaviours);
    }
    for (size_t i = 0, n = 1 + pick(scale); i < n; ++i)
        keep(host.new_object(
                 "ZOKFWMESSAGE", {},
                 {{"MESSAGESTRING", pick(4) == 0 ? kArgArm : text()}, {"HANDLER", any_handler()}}),
             messages);
    for (size_t i = 0, n = 1 + pick(3); i < n; ++i)
        keep(host.new_object(
                 "ZOKFWQUERY", {},
                 {{"MESSAGESTRING", kAsks[pick(kAsks.size())]}, {"HANDLER", any_handler()}}),
             queries);

    // Changes after the build: scoping, registration, sends that arm delayed
    // behaviours, answered queries, dead targets.
    for (size_t i = 0; i < 8 * scale; ++i) {
        const ObjectRef h = handlers[pick(handlers.size())];
        const ObjectRef b = behaviours[pick(behaviours.size())];
        switch (pick(5)) {
        case 0:
            host.call_method(h, pick(2) ? "SCOPEMESSAGE" : "UNSCOPEMESSAGE", {text()});
            break;
        case 1:
            host.call_method(b, pick(2) ? "REGISTER" : "UNREGISTER");
            break;
        case 2:
            send(host, messages[pick(messages.size())], int32_t(pick(100)));
            break;
        case 3:
            host.call_method(queries[pick(queries.size())], "SENDQUERY");
            break;
        default:
            if (pick(5) == 0)
                host.destroy(target());
        }
    }
    for (size_t i = 0, n = 1 + pick(2); i < n; ++i) {
        const ObjectRef m = host.new_object("ZOKDSMAP");
        for (int k = 0; k < 6; ++k) {
            const std::string key = "k" + std::to_string(pick(8));
            const Value values[] = {Value(int16_t(k)), Value(1.0 / (k + 1)), Value("v" + key),
                                    Value(std::vector<std::string>{key, "x"}), Value(targets[0])};
            if (pick(4) == 0)
                host.call_method(m, "REMOVE", {key});
            else
                host.call_method(m, "INSERT", {key, values[pick(5)]});
        }
        maps.emplace_back(m);
    }
    for (size_t i = 0, n = 1 + pick(3); i < n; ++i)
        idents.push_back(host.call_function("GET_FWIDENT", {text()}));
    host.set_var("FW", Value::array(ZOK_T_OBJECT, fw));
    host.set_var("TARGETS", Value::array(ZOK_T_OBJECT, targets));
    host.set_var("MAPS", Value::array(ZOK_T_OBJECT, maps));
    host.set_var("IDENTS", Value::array(ZOK_T_POINTER, idents));
    host.call_procedure("FWIDENT_GC");
}

const std::vector<std::string> kSaved = {"FW", "TARGETS", "MAPS", "IDENTS"};

// What the program restores besides the heap: every framework object's own
// state, its own identifiers rolled over, the restored copies collected.
void after_restore(Program& p) {
    p.host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {Ref{"FW"}});
    std::vector<Value> idents;
    for (const Value& id : p.host.get_var("IDENTS").elements())
        idents.push_back(p.host.call_function("ROLLOVER_FWIDENT", {id}));
    p.host.set_var("IDENTS", Value::array(ZOK_T_POINTER, idents));
    p.host.call_procedure("FWIDENT_GC");
}

// Everything a program can observe of its framework.  The second half sends
// every message, so it changes the framework: take it once per state.
std::string digest(Program& p) {
    zok::Host& host = p.host;
    std::string out;
    auto objects = [&](const char* var) { return host.get_var(var).elements(); };
    auto names = [&](const Value& v) {
        std::string s;
        for (const Value& e : v.elements())
            s += p.name(e) + " ";
        return s;
    };
    std::vector<Value> handlers;
    for (const Value& o : objects("FW"))
        if (host.isa(o.as_object(), "ZOKFWMESSAGEHANDLER"))
            handlers.push_back(o);
    // The default handler is module state: made on demand, it is not saved, and
    // without scopes it is the same as none.
    if (const ObjectRef root{flux::default_handler()};
        root && host.call_method(root, "SCOPEDMESSAGES").size() > 0)
        handlers.emplace_back(root);
    for (const Value& h : handlers) {
        out += p.name(h) + " scopes " + names(host.call_method(h.as_object(), "SCOPEDMESSAGES"));
        for (const std::string& t : kAllTexts)
            out += "\n " + t + ": " + host.call_method(h.as_object(), "ISSCOPED", {t}).to_string() +
                   " " + names(host.call_method(h.as_object(), "BEHAVIORS", {t}));
        out += "\n";
    }
    for (const Value& o : objects("FW")) {
        const ObjectRef obj = o.as_object();
        out += p.name(o) + " flags " + std::to_string(host.heap_flags(obj.id));
        if (host.isa(obj, "ZOKFWBEHAVIOR"))
            out += p.name(o) + " registered " + host.call_method(obj, "ISREGISTERED").to_string();
        if (host.isa(obj, "ZOKFWQUERY"))
            out += p.name(o) + " result " + host.call_method(obj, "RESULT").to_string();
        out += "\n";
    }
    for (const Value& m : objects("MAPS")) {
        const Value keys = host.call_method(m.as_object(), "GETKEYS");
        out += p.name(m) + " keys " + keys.to_string() + "\n";
        for (const Value& k : keys.elements())
            out += " " + p.name(host.call_method(m.as_object(), "GETDATA", {k})) + "\n";
    }
    std::map<std::string, int> live_idents;
    for (const uint32_t id : host.heap_ids(ZOK_HEAP_POINTER))
        if ((host.heap_flags(id) & ZOK_HEAP_HELD) && host.heap_value(id).type() == ZOK_T_STRING)
            ++live_idents[host.heap_value(id).as_string()];
    for (const auto& [t, n] : live_idents)
        out += t + " identifiers " + std::to_string(n) + "\n";
    for (const flux::FwIdentEntry& e : flux::fwident_entries())
        out += e.name + " uses " + std::to_string(e.uses) + "\n";
    for (const Value& id : objects("IDENTS"))
        out += "held " + host.heap_value(id.as_pointer().id).to_string() + "\n";

    p.log.clear();
    for (const Value& o : objects("FW")) {
        const ObjectRef obj = o.as_object();
        if (host.isa(obj, "ZOKFWQUERY")) {
            host.call_method(obj, "SENDQUERY");
            p.log += p.name(o) + " asked: " + host.call_method(obj, "RESULT").to_string() + "\n";
        } else if (host.isa(obj, "ZOKFWMESSAGE")) {
            send(host, obj, 7);
            p.log += p.name(o) + " sent\n";
        }
    }
    for (const Value& h : handlers)
        for (const std::string& t : kTexts) {
            if (!host.heap_alive(h.as_object().id)) // the default handler, gone with its last scope
                break;
            host.call_method(h.as_object(), "SENDMESSAGE", {t});
            p.log += p.name(h) + " sent " + t + "\n";
        }
    return out + p.log;
}

TEST(SaveRestore, AFrameworkComesBackAsItWasAfterAResetAndInAFreshHost) {
    const TempFile file{temp_path("roundtrip")};
    const std::string& path = file.path;
    const uint32_t first = test_seed();
    for (uint32_t seed = first; seed < first + 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::string before, reset, fresh;
        {
            Program p;
            generate(p, seed);
            p.host.save(path, kSaved);
            before = digest(p);
            p.host.reset_session();
            EXPECT_EQ(p.host.restore(path), kSaved);
            after_restore(p);
            EXPECT_EQ(flux::fwident_check(), "");
            reset = digest(p);
        }
        {
            Program p;
            p.host.set_next_heap_id(5000); // no identifier of the file is live here
            p.host.restore(path);
            after_restore(p);
            fresh = digest(p);
        }
        ASSERT_EQ(before, reset);
        ASSERT_EQ(before, fresh);
    }
}

// A small file, made by a host that still holds the framework it saved.
class BadFiles : public ::testing::Test {
protected:
    BadFiles() : p(std::make_unique<Program>()) {
        generate(*p, 7, 1); // small enough to damage at every byte
        p->host.save(path, kSaved);
        good = read_file(path);
    }

    // Restores `bytes`, expecting `code` and a text that starts with the file's
    // name and then `what`; nothing may change.
    void refused(const std::string& bytes, int32_t code, const std::string& what) {
        write_file(path, bytes);
        const zok::Observation before = p->host.observe();
        const zok::Error e = expect_error(code, [&] { p->host.restore(path); });
        EXPECT_EQ(e.text().substr(0, prefix().size() + what.size()), prefix() + what) << e.text();
        EXPECT_EQ(zok::difference(before, p->host.observe()), "");
    }
    std::string prefix() const { return "Save file " + path + " "; }
    std::string with_u32(size_t at, uint32_t v) const {
        std::string out = good;
        std::memcpy(out.data() + at, &v, 4);
        return out;
    }

    std::unique_ptr<Program> p;
    const TempFile file{temp_path("bad")};
    const std::string& path = file.path;
    std::string good;
};

TEST_F(BadFiles, EveryDamageAndEveryUnknownClassIsRefusedWithItsOwnErrorAndChangesNothing) {
    const size_t content = good.size() - 24;
    const std::string content_text = std::to_string(content);
    for (size_t n = 0; n < good.size(); ++n)
        refused(good.substr(0, n), ZOK_ERR_SAVE_FILE,
                n < 24
                    ? "is truncated: " + std::to_string(n) + " bytes, less than its 24-byte header"
                    : "is truncated: its header states " + content_text + " content bytes, " +
                          std::to_string(n - 24) + " are there");
    refused(good + "x", ZOK_ERR_SAVE_FILE,
            "has trailing bytes: 1 after the " + content_text + " content bytes its header states");
    refused(with_u32(8, 2), ZOK_ERR_SAVE_FILE, "has format version 2; this host reads version 1");
    std::filesystem::remove(path);
    EXPECT_EQ(expect_error(ZOK_ERR_SAVE_FILE, [&] { p->host.restore(path); }).text(),
              prefix() + "cannot be opened: No such file or directory; nothing was restored.");
    const std::string dir = std::filesystem::path(path).parent_path().string();
    EXPECT_EQ(expect_error(ZOK_ERR_SAVE_FILE, [&] { p->host.restore(dir); }).text(),
              "Save file " + dir + " cannot be opened: Is a directory; nothing was restored.");

    // A flipped bit: where it lands decides what is found first.
    for (size_t at = 0; at < good.size(); ++at) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
        const char* what = at < 8    ? "is not a save file: its magic number is wrong"
                           : at < 12 ? "has format version"
                           : at < 16 || at >= 24
                               ? "is corrupt: its checksum does not match its content"
                           : (bytes[at] & (1 << (at % 8))) ? "is truncated: its header states"
                                                           : "has trailing bytes: ";
        refused(bytes, ZOK_ERR_SAVE_FILE, what);
    }

    // A sound checksum over unsound content: the decoder still refuses it.
    std::string forged = good.substr(0, 24) + std::string(content, '\xff');
    const uint32_t crc = static_cast<uint32_t>(
        crc32_z(0, reinterpret_cast<const unsigned char*>(forged.data() + 24), content));
    std::memcpy(forged.data() + 12, &crc, 4);
    refused(forged, ZOK_ERR_SAVE_FILE, "is corrupt: the structure table runs past the end");

    // A sound file whose program class this host lacks or defines otherwise,
    // restored into a live framework that must stay as it is.
    const std::tuple<Program::Probe, int32_t, std::string> classes[] = {
        {Program::Probe::Missing, ZOK_ERR_UNKNOWN_CLASS,
         "holds objects of class PROBE, which this host does not define; nothing was restored."},
        {Program::Probe::Changed, ZOK_ERR_STRUCT,
         "holds class PROBE with another layout (saved: parent ZOKFWBEHAVIOR; tags "
         "ZOKFWSAVEABLE_TOP:DOUBLE"},
    };
    for (const auto& [probe, code, text] : classes) {
        p.reset(); // one host at a time
        p = std::make_unique<Program>(probe);
        generate(*p, 11, 1, false);
        refused(good, code, text);
    }
}

TEST_F(BadFiles, AnAllocationFailureAnywhereInARestoreChangesNothing) {
    p->host.reset_session();
    const zok::Observation empty = p->host.observe();
    // Fails the 1st, 2nd, ... allocation in turn until the restore goes through.
    uint64_t nth = 1;
    for (;; ++nth) {
        p->host.fail_allocation(nth);
        try {
            p->host.restore(path);
            break;
        } catch (const zok::Error& e) {
            EXPECT_EQ(e.code(), ZOK_ERR_NO_MEMORY);
            EXPECT_EQ(e.text(),
                      "Unable to allocate memory to restore " + path + "; nothing was restored.");
        }
        p->host.clear_faults();
        ASSERT_EQ(zok::difference(empty, p->host.observe()), "") << "allocation " << nth;
    }
    p->host.clear_faults();
    EXPECT_GT(nth, 20u) << "the sweep reached too few allocations";
    after_restore(*p);
}

} // namespace
