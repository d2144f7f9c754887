// Reads its input as a host program that calls the module's routines with
// whatever a program might hand over, and checks after every step that the
// module neither crashed nor broke anything, and that a step which raised an
// error changed nothing a program can observe.
//
// The routines are the ones in the host's routine table after the module has
// loaded, and the classes those with a routine CLASS::INIT, so that routines
// registered later join without changes here.  A step is one of:
//   - a call of a registered routine, with an argument count inside or outside
//     its range and perhaps keywords (known names, prefixes that are unique or
//     ambiguous, lower case, unknown names).  A method is called by its full
//     name, so its self may be a live object of its class or of another, a
//     dead one, an object of a program class, or any value at all;
//   - making an object of a class (its INIT, with such arguments), or
//     destroying one (its CLEANUP);
//   - assigning a program variable;
//   - the host's collection of unreachable heap variables, or a session reset;
//   - one of the above with an allocation failure armed: the nth allocation,
//     or every allocation under a label.
// An argument is undefined, a scalar or an array of any type code, a
// structure or an array of structures of any defined structure, an object or
// pointer reference (null, dead, live of either kind, out of range), a text
// (empty, long, holding NUL), a number at the limits of its type, passed as a
// temporary or as a named program variable.  References are only those the
// program has held: objects it made and references that calls gave back.
//
// After every step: the host's heap check and the module's checks pass (the
// module-wide ones, and each class's on every live object of that class), no
// temporary is left, no host operation was misused, and a step that raised an
// error left the host's observation and the registry's counts as they were.
// At the end: destroying every object and resetting the session leaves no
// unreachable heap variable, and gives back every block of module memory and
// every text.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "../tests/support/checks.hpp"

using zok::ObjectRef;
using zok::Value;

constexpr size_t kMaxSteps = 256;
constexpr const char* kForeignClass = "FUZZ_FOREIGN";
const std::vector<zok::TagSpec> kForeignTags = {
    {"N", ZOK_T_LONG}, {"TEXT", ZOK_T_STRING}, {"PEER", ZOK_T_OBJECT}, {"DATA", ZOK_T_POINTER}};
constexpr const char* kFlag = "ZOKFWSAVEABLE_TOP";
const char* const kVariables[] = {"V0", "V1", "V2", "V3"};

// The keyword names of the module's INIT methods.
const char* const kKeywordNames[] = {
    "DELAYMESSAGESTRING", "FUNCTION", "HANDLER",  "MESSAGESTRING", "METHOD", "OBJECT",
    "PROCEDURE",          "REGISTER", "RESPONSE", "SCOPE"};

const uint8_t kTypes[] = {ZOK_T_BYTE,   ZOK_T_SHORT,  ZOK_T_LONG,    ZOK_T_FLOAT,  ZOK_T_DOUBLE,
                          ZOK_T_STRING, ZOK_T_STRUCT, ZOK_T_POINTER, ZOK_T_OBJECT, ZOK_T_USHORT,
                          ZOK_T_ULONG,  ZOK_T_LONG64, ZOK_T_ULONG64};

// The least and greatest value of each integer type (all ones is the greatest
// unsigned 64-bit value).
const std::map<uint8_t, std::pair<int64_t, int64_t>> kLimits = {
    {ZOK_T_BYTE, {0, 255}},          {ZOK_T_SHORT, {INT16_MIN, INT16_MAX}},
    {ZOK_T_USHORT, {0, UINT16_MAX}}, {ZOK_T_LONG, {INT32_MIN, INT32_MAX}},
    {ZOK_T_ULONG, {0, UINT32_MAX}},  {ZOK_T_LONG64, {INT64_MIN, INT64_MAX}},
    {ZOK_T_ULONG64, {0, -1}}};

using Limits = std::numeric_limits<double>;
const double kDoubles[] = {0.0,          -0.0,         1.0,  -1.0,          0.5,
                           2147483648.0, 4294967296.0, 1e19, Limits::max(), Limits::denorm_min(),
                           INFINITY,     -INFINITY,    NAN};

// The input as a stream of bytes, zeros once it runs out.
struct Input {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    // A number below n (0 when n is 0).  It takes its byte whatever n is, so
    // that the bytes after it mean the same in any state.
    size_t below(size_t n) {
        size_t v = byte();
        if (n > 256)
            v = v << 8 | byte(); // in this order
        return n == 0 ? 0 : v % n;
    }
};

class Program {
public:
    explicit Program(Input& in) : in_(in) {
        host_.load_module(ZOK_Load, ZOK_ResetSession);
        routines_ = host_.routines();
        for (const zok::RoutineInfo& r : routines_)
            if (r.name.ends_with("::INIT"))
                classes_.push_back(r.name.substr(0, r.name.size() - 6));
        host_.define_struct(kForeignClass, kForeignTags);
        classes_.push_back(kForeignClass);
        for (const std::string& name : host_.struct_names()) {
            zok_var* instance = host_temp_struct(host_.find_struct(name));
            structs_.push_back(host_.read(*instance).as_struct());
            host_release_temp(instance);
        }
        for (const char* v : kVariables)
            host_.set_var(v, Value());
        host_.reset_session();
        baseline_ = host_.observe();
    }

    void run() {
        for (size_t n = 0; n < kMaxSteps && in_.at < in_.size; ++n)
            step();
        finish();
    }

private:
    void step() {
        const uint8_t kind = in_.byte() % 16;
        if (kind == 9 || kind == 10)
            make_object();
        else if (kind == 11)
            destroy_object();
        else if (kind == 12)
            assign_variable();
        else if (kind == 13)
            with_failing_allocation();
        else if (kind == 14)
            perform("collect", [&] { host_.collect(); });
        else if (kind == 15 && in_.byte() < 16)
            perform("reset session", [&] { host_.reset_session(); });
        else
            call_routine();
    }

    void with_failing_allocation() {
        const uint8_t how = in_.byte();
        std::vector<std::string> labels = {zok::kPlainLabel};
        for (const auto& [label, stats] : host_.memory_by_label())
            labels.push_back(label);
        const uint64_t nth = 1 + how / 2 % 32;
        const std::string label = how % 2 ? labels[in_.below(labels.size())] : "";
        log_.push_back(how % 2 ? "fail label " + label : "fail allocation " + std::to_string(nth));
        if (how % 2)
            host_.fail_label(label);
        else
            host_.fail_allocation(nth);
        in_.byte() % 4 == 0 ? make_object() : call_routine();
    }

    // ---- Steps

    void call_routine() {
        const zok::RoutineInfo& r = routines_[in_.below(routines_.size())];
        const size_t colons = r.name.find("::");
        const int argc = argument_count(r.min_args, r.max_args);
        zok::Args args;
        for (int i = 0; i < argc; ++i)
            args.push_back(i == 0 && colons != std::string::npos ? self(r.name.substr(0, colons))
                                                                 : argument());
        const zok::Keywords kw = keywords();
        // The restore pass resets the flag of each object of the array before
        // it looks at the next, so one that ends with the host's error at a bad
        // element has already reset (to 0.0) the flags of those before it.
        // That reset is forgiven; nothing else is.
        std::vector<std::pair<ObjectRef, Value>> flags;
        if (r.name == "ZOKFWSAVEABLERESTOREARRAY" && !args.empty())
            for (const Value& e :
                 (args[0].is_ref() ? host_.get_var(args[0].ref()) : args[0].value()).elements())
                if (e.type() == ZOK_T_OBJECT &&
                    host_.heap_kind(e.as_object().id) == ZOK_HEAP_OBJECT &&
                    host_.isa(e.as_object(), "ZOKFWSAVEABLE"))
                    flags.emplace_back(e.as_object(), host_.get_tag(e.as_object(), kFlag));
        perform(
            r.name + ", " + std::to_string(args.size()) + " arguments",
            [&] {
                if (r.is_function)
                    harvest(host_.call_function(r.name, args, kw));
                else
                    host_.call_procedure(r.name, args, kw);
                // A second INIT of a live object replaces what the first made.
                reinit_ = reinit_ || r.name.ends_with("::INIT");
                texts_kept_ = texts_kept_ || keeps_texts(r.name, kw);
                idents_released_ = idents_released_ || releases_idents(r.name, args);
            },
            flags);
    }

    void make_object() {
        const std::string& cls = classes_[in_.below(classes_.size())];
        zok::Args args;
        for (int n = argument_count(0, 1); n > 0; --n)
            args.push_back(argument());
        const zok::Keywords kw = keywords();
        perform("new " + cls, [&] {
            if (const ObjectRef made = host_.new_object(cls, args, kw))
                objects_.push_back(made.id);
            texts_kept_ = texts_kept_ || keeps_texts(cls + "::INIT", kw);
        });
    }

    void destroy_object() {
        const uint32_t id = reference_id(ZOK_T_OBJECT);
        perform("destroy " + std::to_string(id), [&] { host_.destroy(ObjectRef{id}); });
    }

    void assign_variable() {
        const char* name = kVariables[in_.below(std::size(kVariables))];
        const Value v = value();
        perform(std::string(name) + " = " + v.to_string(), [&] { host_.set_var(name, v); });
    }

    // ---- Arguments

    int argument_count(int least, int most) {
        const uint8_t b = in_.byte(); // now and then outside the range
        return b < 224 ? least + b % (most - least + 1) : b % (most + 3);
    }

    zok::Arg self(const std::string& cls) {
        std::vector<uint32_t> of_class = live(objects_);
        std::erase_if(of_class, [&](uint32_t id) {
            return host_.heap_kind(id) != ZOK_HEAP_OBJECT || !host_.isa(ObjectRef{id}, cls);
        });
        const uint8_t how = in_.byte() % 8;
        const size_t pick = in_.byte();
        if (how < 6 && !of_class.empty())
            return Value(ObjectRef{of_class[pick % of_class.size()]});
        if (how == 6 && !of_class.empty())
            return Value(std::vector<ObjectRef>(1 + pick % 2, ObjectRef{of_class[0]}));
        return how < 7 ? zok::Arg(Value(ObjectRef{reference_id(ZOK_T_OBJECT)})) : argument();
    }

    zok::Arg argument() {
        return in_.byte() % 8 == 0
                   ? zok::Arg(zok::Ref{kVariables[in_.below(std::size(kVariables))]})
                   : zok::Arg(value());
    }

    // One byte: its low bits pick the type, weighted towards what routines
    // take (texts, references, integers), every type code coming up; its top
    // bits make it an array of that type now and then, so that one change of
    // that byte turns a value a routine takes into an array of the right type.
    Value value() {
        static const uint8_t types[16] = {
            ZOK_T_STRING,  ZOK_T_STRING,  ZOK_T_STRING,    ZOK_T_STRING,
            ZOK_T_STRING,  ZOK_T_OBJECT,  ZOK_T_OBJECT,    ZOK_T_OBJECT,
            ZOK_T_POINTER, ZOK_T_POINTER, ZOK_T_POINTER,   ZOK_T_LONG,
            ZOK_T_LONG,    ZOK_T_STRUCT,  ZOK_T_UNDEFINED, ZOK_T_UNDEFINED};
        const uint8_t b = in_.byte();
        uint8_t type = types[b % 16];
        if (type == ZOK_T_UNDEFINED) {
            if (b % 2 == 0)
                return Value();
            type = kTypes[in_.below(std::size(kTypes))];
        }
        return b >= 224 ? array(type) : scalar(type);
    }

    Value scalar(uint8_t type) {
        switch (type) {
        case ZOK_T_STRING:
            return text();
        case ZOK_T_STRUCT:
            return structure(structs_[in_.below(structs_.size())]);
        case ZOK_T_POINTER:
            return Value(zok::PointerRef{reference_id(type)});
        case ZOK_T_OBJECT:
            return Value(ObjectRef{reference_id(type)});
        case ZOK_T_FLOAT:
        case ZOK_T_DOUBLE:
            return Value::number(type, kDoubles[in_.below(std::size(kDoubles))]);
        default: {
            const auto [least, most] = kLimits.at(type);
            const int64_t picks[] = {0, 1, 2, -1, least, most, in_.byte()};
            return Value::integer(type, picks[in_.below(std::size(picks))]);
        }
        }
    }

    Value array(uint8_t type) {
        std::vector<Value> elements;
        if (type == ZOK_T_STRUCT) {
            const zok::StructValue& kind = structs_[in_.below(structs_.size())];
            for (size_t n = 1 + in_.below(2); n > 0; --n)
                elements.push_back(structure(kind));
        } else {
            for (size_t n = in_.below(4); n > 0; --n)
                elements.push_back(scalar(type));
        }
        return Value::array(type, std::move(elements));
    }

    // A structure of the template's kind with a few of its fields set.
    Value structure(zok::StructValue st) {
        for (size_t n = in_.below(3); n > 0 && !st.fields.empty(); --n) {
            Value& field = st.fields[in_.below(st.fields.size())].second;
            field = scalar(field.type());
        }
        return Value(std::move(st));
    }

    // Empty, long, holding NUL, spaced, any bytes, or a short word.
    Value text() {
        static const std::string fixed[] = {"", "", std::string("k\0k", 3), " 1 "};
        static const char* const words[] = {"k", "K", "a", "\xff", "1"};
        const uint8_t kind = in_.byte() % 8;
        std::string t = kind < 4 ? fixed[kind] : "";
        if (kind == 1)
            t.assign(300 + in_.byte(), 'x');
        for (size_t n = kind == 4 ? in_.below(16) : 0; n > 0; --n)
            t += static_cast<char>(in_.byte());
        return kind > 4 ? words[in_.below(std::size(words))] : t;
    }

    // An identifier the program may hand over for a reference of `type`: most
    // often a live one of that kind that it holds, else one of the other kind,
    // one it held that has died, null, or one out of any range.
    uint32_t reference_id(uint8_t type) {
        const std::vector<uint32_t> same = live(type == ZOK_T_OBJECT ? objects_ : pointers_);
        const std::vector<uint32_t> other = live(type == ZOK_T_OBJECT ? pointers_ : objects_);
        const uint8_t how = in_.byte() % 16;
        const size_t pick = in_.byte();
        if (how < 10 && !same.empty())
            return same[pick % same.size()];
        if (how < 12 && !other.empty())
            return other[pick % other.size()];
        if (how < 14) {
            std::vector<uint32_t> dead = live(objects_, false);
            std::ranges::copy(live(pointers_, false), std::back_inserter(dead));
            return dead.empty() ? host_.next_heap_id() : dead[pick % dead.size()];
        }
        return how == 14 ? UINT32_MAX : 0;
    }

    // Those of `held` that are alive (or dead).
    std::vector<uint32_t> live(std::vector<uint32_t> held, bool alive = true) const {
        std::erase_if(held, [&](uint32_t id) { return host_.heap_alive(id) != alive; });
        return held;
    }

    zok::Keywords keywords() {
        const uint8_t b = in_.byte();
        zok::Keywords kw;
        if (b % 8 != 0)
            return kw;
        for (size_t n = 1 + b / 8 % 3; n > 0; --n) {
            // The name, a prefix of it, in lower case, unknown, or empty.
            std::string name = kKeywordNames[in_.below(std::size(kKeywordNames))];
            const uint8_t how = in_.byte() % 6;
            if (how == 0)
                name.resize(1 + in_.below(name.size() - 1));
            if (how == 1)
                std::ranges::transform(name, name.begin(), ::tolower);
            kw.push_back({how == 2 ? "NOSUCH" : how == 3 ? "" : name, argument()});
        }
        return kw;
    }

    // Keeps the references a call gave back.
    void harvest(const Value& result) {
        for (const Value& e : result.elements()) {
            if (e.type() == ZOK_T_OBJECT && e.as_object())
                objects_.push_back(e.as_object().id);
            if (e.type() == ZOK_T_POINTER && e.as_pointer())
                pointers_.push_back(e.as_pointer().id);
        }
    }

    // ---- Checks

    template <class Step>
    void perform(std::string what, Step&& step,
                 const std::vector<std::pair<ObjectRef, Value>>& flags = {}) {
        log_.push_back(std::move(what));
        const zok::Observation before = host_.observe();
        const std::string counts_before = zoktest::registry_counts();
        bool raised = false;
        try {
            step();
        } catch (const zok::Error& e) {
            raised = true;
            log_.back() += " -> " + std::string(e.what());
        }
        host_.clear_faults();
        verify();
        if (!raised)
            return;
        for (const auto& [object, flag] : flags)
            if (host_.heap_alive(object.id) && host_.get_tag(object, kFlag) == Value(0.0))
                host_.set_tag(object, kFlag, flag);
        std::string changed = zok::difference(before, host_.observe());
        if (const std::string counts = zoktest::registry_counts(); counts != counts_before)
            changed += " the registry's counts: " + counts_before + "-> " + counts;
        if (!changed.empty())
            fail("the step raised an error, yet changed the state: " + changed);
    }

    void verify() {
        try {
            host_.check_heap();
            if (const std::string fault = zoktest::module_fault(host_); !fault.empty())
                fail(fault);
        } catch (const std::exception& e) {
            fail(std::string("a check raised: ") + e.what());
        }
        if (host_.live_temps() != 0 || host_.leftover_temps() != 0)
            fail("temporaries left behind");
        for (const zok::Message& m : host_.messages())
            if (!m.routine.empty() &&
                (m.code == ZOK_ERR_BAD_FREE || m.code == ZOK_ERR_BAD_ARGUMENT))
                fail("a host operation was misused: " + m.text);
        host_.clear_messages();
    }

    void finish() {
        log_.push_back("finish");
        host_.clear_faults();
        for (const uint32_t id : host_.heap_ids(ZOK_HEAP_OBJECT)) {
            try {
                host_.destroy(ObjectRef{id});
            } catch (const zok::Error& e) {
                // The program's own doing (see releases_idents), which the
                // module reports.
                if (!idents_released_ || e.code() != -1 || e.text() != "FWIdent corruption" ||
                    e.block().empty())
                    fail("destroying object " + std::to_string(id) + " raised: " + e.what());
            }
        }
        verify();
        ZOK_ResetSession();
        for (const char* v : kVariables)
            host_.erase_var(v);
        if (!reinit_)
            if (const size_t garbage = host_.collect())
                fail(std::to_string(garbage) + " heap variables were left that nothing reaches");
        host_.reset_session();
        if (host_.memory_by_label() != baseline_.memory)
            fail("module memory was not all given back");
        if (host_.live_texts() != baseline_.texts && !texts_kept_)
            fail("texts were not all given back");
    }

    [[noreturn]] void fail(const std::string& what) const {
        for (const std::string& line : log_)
            std::fprintf(stderr, "  %s\n", line.c_str());
        std::fprintf(stderr, "%s\n", what.c_str());
        std::abort();
    }

    Input& in_;
    zok::Host host_;
    std::vector<zok::RoutineInfo> routines_;
    std::vector<std::string> classes_;
    std::vector<zok::StructValue> structs_; // a zeroed instance of every structure
    std::vector<uint32_t> objects_;         // object references the program has held
    std::vector<uint32_t> pointers_;        // pointer references calls gave back
    std::vector<std::string> log_;
    zok::Observation baseline_;
    bool reinit_ = false, texts_kept_ = false, idents_released_ = false;

    // An explicit CLEANUP, or a release by the program, gives back a use that an
    // object still names, and a collection with the all argument frees
    // identifiers in use; either way an object can be left holding a dead
    // identifier, and its own CLEANUP then meets it in a key comparison. That
    // corruption is the program's doing, and the module reports it.
    static bool releases_idents(const std::string& routine, const zok::Args& args) {
        return routine.ends_with("::CLEANUP") || routine == "FWIDENT_RELEASE" ||
               (routine == "FWIDENT_GC" && !args.empty());
    }
    // The routine-name setters of the procedure and function behaviours, and
    // their INIT given a name or run again, deliberately keep the text they
    // replace (the class is defined so).
    bool keeps_texts(const std::string& routine, const zok::Keywords& kw) const {
        return routine == "ZOKFWPROCBEHAV::SETPROC" || routine == "ZOKFWFUNCBEHAV::SETFUNC" ||
               ((routine == "ZOKFWPROCBEHAV::INIT" || routine == "ZOKFWFUNCBEHAV::INIT") &&
                (!kw.empty() || reinit_));
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    Program(in).run();
    return 0;
}
