// The messaging classes against a small reference model of handlers, chains,
// scopes, filed behaviours of every direct kind (probes, procedure and function
// behaviours, method behaviours whose targets may be unset, die, or be killed by
// the delivery itself, query behaviours) and of messages and queries, over
// seeded random sequences of operations.  After every step: who each send
// reached, in which order and with which argument, what every handler scopes
// and files, each behaviour's registration, handler and response, each query's
// result, the default handler's life, the registry's use counts, and every
// handler's scope-table check; and what a copy of a message carries, and how
// two messages order.  Now and then the session goes through a save
// file and back, and the checks go on against the same model.
#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <utility>

#include "fw/fw_message.hpp"
#include "support/messaging_testing.hpp"

namespace msgtest {

const std::string kGeneric = "Generic Message";
// Only query behaviours file under it, and only queries carry it: a query
// behaviour needs the query as its argument.
const std::string kAsk = "ask";
const Value kNoResponse("UnInitialized Response");

enum class Kind { probe, procedure, function, method, answer };

// What the module should do, step by step as its operations are defined.
// Handlers are keyed by heap identifier; the default handler, whose
// identifier the model cannot foresee, by a key of its own per incarnation.
struct Model {
    static constexpr uint32_t kDefaultBase = 0xF0000000;

    struct Handler {
        uint32_t my = 0;
        std::map<std::string, std::set<uint32_t>> scopes;
    };
    struct Behavior {
        uint32_t my = 0;
        std::string text = kGeneric;
        bool registered = false;
        Kind kind = Kind::probe;
        std::string name;    // a routine's, or a method's (empty: one nobody registered)
        std::string routine; // the name its routine or method was registered under
        uint32_t target = 0;
        bool killer = false; // its method destroys the target
        std::optional<Value> response;
    };
    struct Message {
        uint32_t my = 0;
        std::string text = kGeneric;
        bool query = false;
        Value result;
    };

    std::map<uint32_t, Handler> handlers;
    std::map<uint32_t, Behavior> behaviors;
    std::map<uint32_t, Message> messages;
    std::map<uint32_t, bool> live_targets; // each with whether its class overrides the methods
    uint32_t default_key = 0;
    uint32_t incarnations = 0;
    std::vector<uint32_t> delivered;
    size_t receivers = 0;        // in the set a send reached, dead targets included
    std::optional<Value> answer; // the last query behaviour's response a send ran

    uint32_t ensure_default() {
        if (default_key == 0)
            handlers[default_key = kDefaultBase + ++incarnations];
        return default_key;
    }
    // The handler an object of any kind names, or the default one (which names none).
    uint32_t up(uint32_t id) {
        const uint32_t my = handlers.count(id)    ? handlers.at(id).my
                            : behaviors.count(id) ? behaviors.at(id).my
                                                  : messages.at(id).my;
        return my != 0 ? my : id == default_key ? 0 : ensure_default();
    }
    std::set<uint32_t>* scope(uint32_t h, const std::string& text) {
        auto& scopes = handlers.at(h).scopes;
        const auto it = scopes.find(text);
        return it == scopes.end() ? nullptr : &it->second;
    }
    // The first handler from h up that scopes the text; 0 when none does.
    uint32_t scoping(uint32_t h, const std::string& text) {
        return h == 0 || scope(h, text) != nullptr ? h : scoping(up(h), text);
    }

    // A behaviour is filed where its text is first scoped, else at the root.
    void add(uint32_t h, uint32_t b) {
        const std::string& text = behaviors.at(b).text;
        uint32_t at = scoping(h, text);
        if (at == 0)
            scope_message(at = ensure_default(), text);
        scope(at, text)->insert(b);
    }
    void remove(uint32_t h, uint32_t b) {
        const std::string& text = behaviors.at(b).text;
        for (; h != 0; h = up(h))
            if (auto* set = scope(h, text); set != nullptr && set->erase(b) != 0) {
                if (h == default_key && set->empty())
                    unscope_message(h, text);
                return;
            }
    }
    void reregister(uint32_t b) {
        if (behaviors.at(b).registered) {
            remove(up(b), b);
            add(up(b), b);
        }
    }
    void set_registered(uint32_t b, bool on) {
        if (std::exchange(behaviors.at(b).registered, on) != on)
            on ? add(up(b), b) : remove(up(b), b);
    }
    // A new scope takes over what it now hides from the scope above it.
    void scope_message(uint32_t h, const std::string& text) {
        if (scope(h, text) != nullptr)
            return;
        handlers.at(h).scopes[text];
        if (const uint32_t above = scoping(up(h), text))
            for (const uint32_t b : std::set(*scope(above, text)))
                reregister(b);
    }
    void unscope_message(uint32_t h, const std::string& text) {
        auto& scopes = handlers.at(h).scopes;
        if (const auto it = scopes.find(text); it != scopes.end()) {
            const std::set<uint32_t> snapshot = it->second;
            scopes.erase(it);
            for (const uint32_t b : snapshot)
                reregister(b);
        }
        if (h == default_key && handlers.at(h).scopes.empty())
            handlers.erase(std::exchange(default_key, 0));
    }
    // Each behaviour of the snapshot in identifier order: a method behaviour
    // whose target is unset or dead (killed earlier in this very send, too)
    // unregisters itself instead; one whose method nobody registered runs nothing.
    void send(uint32_t h, const std::string& text) {
        delivered.clear();
        answer.reset();
        receivers = 0;
        if ((h = scoping(h, text)) == 0)
            return;
        const std::set<uint32_t> snapshot = *scope(h, text);
        receivers = snapshot.size();
        for (const uint32_t id : snapshot) {
            const Behavior& b = behaviors.at(id);
            if (b.kind == Kind::answer) {
                answer = b.response.value_or(kNoResponse);
            } else if (b.kind != Kind::method) {
                delivered.push_back(id);
            } else if (live_targets.count(b.target) == 0) {
                set_registered(id, false);
            } else if (!b.name.empty() && live_targets.at(b.target)) {
                delivered.push_back(~id); // the subclass's override ran
            } else if (!b.name.empty()) {
                delivered.push_back(id);
                if (b.killer)
                    live_targets.erase(b.target);
            }
        }
    }
    void destroy_handler(uint32_t h) {
        if (h == default_key)
            default_key = 0;
        for (const auto& [text, set] : handlers.at(h).scopes)
            for (const uint32_t b : set)
                behaviors.at(b).registered = false;
        handlers.erase(h);
    }
    void destroy_behavior(uint32_t b) {
        set_registered(b, false);
        behaviors.erase(b);
    }
    // Whether destroying the behaviour would leave it filed somewhere.
    bool would_stay_filed(uint32_t b) const {
        Model after = *this;
        after.destroy_behavior(b);
        for (const auto& [h, handler] : after.handlers)
            for (const auto& [text, set] : handler.scopes)
                if (set.count(b) != 0)
                    return true;
        return false;
    }
    // A restore: every object under its new identifier (a dead target under
    // none), the default handler, module state, gone with its scopes; then the
    // restore pass takes each registered behaviour out and files it again.
    void restored(const std::map<uint32_t, uint32_t>& to) {
        const auto at = [&](uint32_t id) { return to.count(id) != 0 ? to.at(id) : 0u; };
        if (default_key != 0)
            handlers.erase(std::exchange(default_key, 0));
        const auto renamed = [&](auto& objects) {
            std::remove_reference_t<decltype(objects)> out;
            for (auto& [id, object] : objects) {
                if constexpr (requires { object.my; })
                    object.my = at(object.my);
                out.emplace(at(id), std::move(object));
            }
            objects = std::move(out);
        };
        renamed(handlers);
        renamed(behaviors);
        renamed(messages);
        renamed(live_targets);
        for (auto& [id, handler] : handlers)
            for (auto& [text, set] : handler.scopes) {
                std::set<uint32_t> now;
                std::ranges::transform(set, std::inserter(now, now.end()), at);
                set = std::move(now);
            }
        for (auto& [id, behavior] : behaviors) {
            behavior.target = at(behavior.target);
            reregister(id);
        }
    }
    // Whether `h` lies on the chain of explicit handlers above `from`.
    bool above(uint32_t h, uint32_t from) const {
        return from != 0 && (from == h || above(h, handlers.at(from).my));
    }
};

class MessagingModel : public Messaging {
protected:
    MessagingModel() { define(); }
    void define() {
        host.define_struct("TARGET", {{"HITS", ZOK_T_LONG}});
        host.define_struct("SUBTARGET", {}, "TARGET");
        // Sends, from message 1, argument 2: the caller's own temporary, as an
        // interpreter passes a value; keeps what the send left of it.
        host.add_procedure("RELAY", 2, 2, [this](zok::Call& call) {
            caller = call.var(1);
            const zok_heap_record* message =
                host_object_heap_var(call.arg(0).as_object().id, ZOK_ACTION_ERROR);
            host_call_method(2, host_lookup_name("SEND", 0, 1, ZOK_ACTION_ERROR, 0), message, 0, 1,
                             &caller, 0, 0, 0);
            left = host.read(*caller);
            left_flags = caller->flags;
            return Value();
        });
    }

    Value call(uint32_t id, const std::string& method, const zok::Args& args = {}) {
        return host.call_method(ObjectRef{id}, method, args);
    }
    uint32_t real(uint32_t key) const {
        return key >= Model::kDefaultBase ? default_handler().id : key;
    }
    // Any one of a map's keys; 0 when there is none.
    template <class Container>
    uint32_t pick(const Container& objects) {
        return objects.empty() ? 0 : std::next(objects.begin(), rng() % objects.size())->first;
    }
    const std::string& text() {
        static const std::string texts[] = {"alpha", "beta", "gamma", kGeneric};
        return texts[rng() % 4];
    }
    Value value() {
        const uint32_t kind = rng() % 3;
        return kind == 0   ? Value(static_cast<int32_t>(rng()))
               : kind == 1 ? Value(std::vector<std::string>{text(), text()})
                           : Value(text());
    }
    uint32_t program_handler_or_none() {
        const uint32_t h = rng() % 3 == 0 ? 0 : pick(model.handlers);
        return h < Model::kDefaultBase ? h : 0;
    }
    // A new target, or one of the live ones; sometimes none at all.
    uint32_t any_target() {
        if (rng() % 8 == 0)
            return 0;
        if (model.live_targets.empty() || rng() % 2 == 0) {
            const bool sub = rng() % 4 == 0;
            return model.live_targets.emplace(host.new_object(sub ? "SUBTARGET" : "TARGET").id, sub)
                .first->first;
        }
        return pick(model.live_targets);
    }
    // Every delivery records who ran (a probe's EXECUTE records itself) and
    // checks what it was given.  When the caller passed its own temporary, two
    // or more receivers share a plain copy and a single one gets the temporary
    // itself; a routine's or method's argument is the host's copy.
    Value ran(uint32_t id, zok::Call& call, int32_t arg, bool probe = false) {
        if (id != 0)
            executed.push_back(id);
        const zok_var* var = call.argc() > arg ? call.var(arg) : nullptr;
        EXPECT_EQ(var ? call.arg(arg) : Value(), expected_arg);
        if (probe && passed_temporary) {
            const bool shared = model.receivers >= 2;
            EXPECT_EQ(var == caller, !shared);
            EXPECT_EQ(var ? var->flags & ZOK_VF_TEMPORARY : -1, shared ? 0 : ZOK_VF_TEMPORARY);
        }
        return Value();
    }
    enum class Pass { nothing, named, temporary };
    void new_behavior();
    // A behaviour's own routine, or its method in both target classes, named
    // after the behaviour's identifier when it was made.
    struct Routine {
        uint32_t id; // the behaviour's identifier now (a restore gives it another)
        Kind kind;
        bool killer;
    };
    void add_routine(uint32_t first_id);
    void save_and_restore();
    void send_and_compare(uint32_t m, Pass pass, const Value& sent);

    void step();
    void compare();
    void take_everything_down();

    std::mt19937 rng;
    Model model;
    std::map<uint32_t, Routine> routines; // by the behaviour's first identifier
    Value expected_arg;                   // what every delivery of the send under way is given
    bool passed_temporary = false;
    zok_var* caller = nullptr;
    Value left;
    uint8_t left_flags = 0;
};

void MessagingModel::new_behavior() {
    const Kind kind = static_cast<Kind>(rng() % 5);
    Model::Behavior b;
    b.my = program_handler_or_none();
    b.text = kind == Kind::answer ? kAsk : text();
    b.kind = kind;
    const int scope = rng() % 4 == 0;
    const int reg = rng() % 4 != 0;
    zok::Keywords kw{{"HANDLER", ObjectRef{b.my}},
                     {"MESSAGESTRING", b.text},
                     {"SCOPE", scope},
                     {"REGISTER", reg}};
    if (kind == Kind::method && (b.target = any_target()) != 0)
        kw.push_back({"OBJECT", ObjectRef{b.target}});
    if (kind == Kind::answer && rng() % 2 == 0)
        kw.push_back({"RESPONSE", *(b.response = value())});
    const char* classes[] = {"PROBE", "ZOKFWPROCBEHAV", "ZOKFWFUNCBEHAV", "ZOKFWOBJBEHAV",
                             "ZOKFWQUERYBEHAV"};
    const uint32_t id = host.new_object(classes[static_cast<int>(kind)], {}, kw).id;
    if (kind == Kind::probe) {
        on_execute[id] = [this](zok::Call& call) {
            EXPECT_GT(host.memory("ZOkfwBehaviorList").blocks, 0u) << "a delivery walks a snapshot";
            ran(0, call, 1, true);
        };
    } else if (kind != Kind::answer) { // a routine or method of its own, named in either case
        b.killer = kind == Kind::method && rng() % 4 == 0;
        b.routine = "CALL_" + std::to_string(id);
        b.name = rng() % 2 ? b.routine : "call_" + std::to_string(id);
        routines[id] = {id, kind, b.killer};
        add_routine(id);
        const std::string getter = std::array{"PROC", "FUNC", "METHOD"}[static_cast<int>(kind) - 1];
        call(id, "SET" + getter, {b.name});
    }
    model.behaviors[id] = b;
    if (scope)
        model.scope_message(model.up(id), b.text);
    if (reg)
        model.set_registered(id, true);
}

void MessagingModel::add_routine(uint32_t first_id) {
    const Routine& r = routines.at(first_id);
    const bool method = r.kind == Kind::method;
    const std::string name = "CALL_" + std::to_string(first_id);
    const auto add =
        r.kind == Kind::function ? &zok::Host::add_function : &zok::Host::add_procedure;
    (host.*add)((method ? "TARGET::" : "") + name, 1, method ? 2 : 1,
                [this, &r](zok::Call& call) {
                    ran(r.id, call, r.kind == Kind::method ? 1 : 0);
                    if (r.killer)
                        host.destroy(call.self());
                    return r.kind == Kind::function ? Value("a result nobody keeps") : Value();
                },
                false);
    if (method) // the target's own class resolves the name
        host.add_procedure("SUBTARGET::" + name, 1, 2,
                           [this, &r](zok::Call& call) { return ran(~r.id, call, 1); });
}

// The session goes to a file and comes back after a reset, sometimes in a
// fresh host, at identifiers further on, with the restore pass (in a random
// order) and a collection after it.  The model only renames its objects.
void MessagingModel::save_and_restore() {
    const std::vector<std::string> names = {"FW", "TARGETS"};
    std::vector<Value> saved[2]; // the framework's objects, the targets
    for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
        if (id != flux::default_handler())
            saved[model.live_targets.count(id)].emplace_back(ObjectRef{id});
    std::shuffle(saved[0].begin(), saved[0].end(), rng);
    for (int i = 0; i < 2; ++i)
        host.set_var(names[i], Value::array(ZOK_T_OBJECT, saved[i]));
    const zoktest::TempFile file;
    host.save(file.path, names);
    const uint32_t next = host.next_heap_id();
    if (rng() % 3 == 0) {
        fresh_host();
        define();
        for (const auto& [first_id, routine] : routines)
            add_routine(first_id);
    } else {
        host.reset_session();
    }
    host.set_next_heap_id(next + rng() % 100);
    EXPECT_EQ(host.restore(file.path), names);
    host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Ref{"FW"}});
    host.call_procedure("FWIDENT_GC");

    std::map<uint32_t, uint32_t> renamed;
    for (int i = 0; i < 2; ++i) {
        const std::vector<Value> restored = host.get_var(names[i]).elements();
        for (size_t k = 0; k < restored.size(); ++k)
            renamed[saved[i][k].as_object().id] = restored[k].as_object().id;
    }
    model.restored(renamed);
    for (auto& [first_id, routine] : routines)
        routine.id = renamed.count(routine.id) ? renamed[routine.id] : 0;
    std::map<uint32_t, std::function<void(zok::Call&)>> actions;
    for (auto& [id, action] : on_execute)
        if (renamed.count(id))
            actions[renamed[id]] = std::move(action);
    on_execute = std::move(actions);
}

// Sends m (a query asks instead) with `sent` passed as `pass` says: who ran,
// in order, with what, and what the query was answered.
void MessagingModel::send_and_compare(uint32_t m, Pass pass, const Value& sent) {
    Model::Message& message = model.messages.at(m);
    model.send(model.up(m), message.text);
    executed.clear();
    expected_arg = pass == Pass::nothing ? Value() : sent;
    passed_temporary = pass == Pass::temporary;
    host.clear_messages();
    if (message.query) {
        const uint32_t result = pointer(m, "QUERY_RESULT");
        message.result = model.answer.value_or(message.result);
        EXPECT_EQ(call(m, "SENDQUERY"), message.result);
        // Every answer lands in the same heap variable, as a copy.
        EXPECT_TRUE(result == 0 || pointer(m, "QUERY_RESULT") == result);
    } else if (pass == Pass::temporary) {
        host.call_procedure("RELAY", {ObjectRef{m}, sent});
    } else {
        host.set_var("NAMED", sent);
        call(m, "SEND", pass == Pass::named ? zok::Args{zok::Ref{"NAMED"}} : zok::Args{});
        EXPECT_EQ(host.get_var("NAMED"), sent) << "a named variable stays the caller's";
    }
    EXPECT_EQ(executed, model.delivered);
    expected_arg = Value();
    passed_temporary = false;
    EXPECT_TRUE(host.messages().empty()) << "dead targets and unknown names are quiet";
}

void MessagingModel::step() {
    const uint32_t h = pick(model.handlers);
    const uint32_t b = pick(model.behaviors);
    const uint32_t m = pick(model.messages);
    switch (rng() % 16) {
    case 0: {
        const uint32_t parent = program_handler_or_none();
        model.handlers[handler(ObjectRef{parent}).id].my = parent;
        break;
    }
    case 1:
        new_behavior();
        break;
    case 2: {
        const uint32_t parent = program_handler_or_none();
        const bool query = rng() % 3 == 0;
        const std::string t = query ? kAsk : text();
        const int scope = rng() % 3 == 0;
        const zok::Keywords kw{
            {"HANDLER", ObjectRef{parent}}, {"MESSAGESTRING", t}, {"SCOPE", scope}};
        const uint32_t id = host.new_object(query ? "ZOKFWQUERY" : "ZOKFWMESSAGE", {}, kw).id;
        model.messages[id] = {parent, t, query, query ? Value("UnInitialized Result") : Value()};
        if (query && rng() % 2) { // a copy of a program variable as its result
            host.set_var("RESULT", static_cast<int32_t>(id));
            call(id, "SETRESULT", {zok::Ref{"RESULT"}});
            EXPECT_EQ(host.get_var("RESULT").as_int(), id);
            model.messages.at(id).result = Value(static_cast<int32_t>(id));
        }
        if (scope)
            model.scope_message(model.up(id), t);
        break;
    }
    case 3: // registration, a scope or a filing turned on or off
    case 4:
    case 5:
    case 6:
        if (const bool on = rng() % 2 == 0; b != 0 && rng() % 2 == 0) {
            call(b, on ? "REGISTER" : "UNREGISTER");
            model.set_registered(b, on);
        } else if (const std::string t = text(); h != 0 && rng() % 2 == 0) {
            call(real(h), on ? "SCOPEMESSAGE" : "UNSCOPEMESSAGE", {t});
            on ? model.scope_message(h, t) : model.unscope_message(h, t);
        } else if (h != 0 && b != 0) {
            call(real(h), on ? "ADDBEHAVIOR" : "REMOVEBEHAVIOR", {ObjectRef{b}});
            on ? model.add(h, b) : model.remove(h, b);
        }
        break;
    case 7: // a new text for a behaviour and a message; a query's is its own
        if (b != 0 && model.behaviors.at(b).kind != Kind::answer) {
            model.behaviors.at(b).text = text();
            call(b, "SETMESSAGESTRING", {model.behaviors.at(b).text});
        }
        if (m != 0 && !model.messages.at(m).query) {
            model.messages.at(m).text = text();
            call(m, "SETMESSAGESTRING", {model.messages.at(m).text});
        }
        if (const uint32_t other = pick(model.messages); m != 0) {
            // A copy carries the text alone; messages order by their texts' bytes.
            const ObjectRef copy{flux::copy_message(m)};
            EXPECT_EQ(host.call_method(copy, "MESSAGESTRING"), Value(model.messages.at(m).text));
            EXPECT_FALSE(host.get_tag(copy, "MYHANDLER").as_object());
            EXPECT_EQ(flux::compare_messages(copy.id, m), 0);
            EXPECT_EQ(flux::compare_messages(m, other) <=> 0,
                      model.messages.at(m).text <=> model.messages.at(other).text);
            host.destroy(copy);
        }
        break;
    case 8:
        if (m != 0)
            send_and_compare(m, rng() % 2 ? Pass::named : Pass::nothing, value());
        break;
    case 9: // with a temporary argument
        if (m != 0 && !model.messages.at(m).query) {
            const Value sent = value();
            const size_t texts = host.live_texts();
            send_and_compare(m, Pass::temporary, sent);
            // Shared by two or more, the caller's temporary is left empty.
            const bool shared = model.receivers >= 2;
            EXPECT_EQ(left, shared ? Value() : sent);
            EXPECT_EQ(shared ? left_flags : left_flags & ZOK_VF_TEMPORARY, ZOK_VF_TEMPORARY);
            EXPECT_EQ(host.live_texts(), texts);
        }
        break;
    case 10:
        if (h != 0) {
            const std::string t = text();
            EXPECT_EQ(send_from(ObjectRef{real(h)}, t), (model.send(h, t), model.delivered));
            // The text was made an identifier, known until the next collection.
            EXPECT_NE((" " + zoktest::registry_counts()).find(" " + t + "="), std::string::npos);
        }
        break;
    case 11: { // set a handler, never closing a loop
        const uint32_t parent = program_handler_or_none();
        if (b != 0 && rng() % 2 == 0) {
            call(b, "SETHANDLER", {ObjectRef{parent}});
            model.behaviors.at(b).my = parent;
        } else if (h != 0 && h < Model::kDefaultBase && !model.above(h, parent)) {
            call(h, "SETHANDLER", {ObjectRef{parent}});
            model.handlers.at(h).my = parent;
        }
        break;
    }
    case 12: // HANDLER may make the default handler, which has none itself
        if (const uint32_t obj = std::array{b, m, h}[rng() % 3]; obj != 0) {
            const uint32_t got = call(real(obj), "HANDLER").as_object().id;
            EXPECT_EQ(got, real(model.up(obj)));
        }
        break;
    case 13: // a handler goes, once whatever named it points above it
        if (h != 0) {
            const uint32_t parent = model.handlers.at(h).my;
            auto point_above = [&](auto& objects) {
                for (auto& [id, object] : objects)
                    if (object.my == h) {
                        call(id, "SETHANDLER", {ObjectRef{parent}});
                        object.my = parent;
                    }
            };
            point_above(model.handlers);
            point_above(model.behaviors);
            point_above(model.messages);
            // An explicit CLEANUP leaves the object with no scope table.
            const ObjectRef gone{real(h)};
            host.call_method(gone, "CLEANUP");
            EXPECT_EQ(pointer(gone.id, "BEHAVIORS"), 0u);
            host.destroy(gone);
            model.destroy_handler(h);
        }
        break;
    case 14:
        if (b != 0 && model.behaviors.at(b).kind == Kind::method && rng() % 2 == 0) {
            Model::Behavior& behavior = model.behaviors.at(b);
            if (model.live_targets.erase(behavior.target) != 0) {
                host.destroy(ObjectRef{behavior.target});
            } else if (rng() % 2 == 0) {
                behavior.target = any_target();
                call(b, "SETOBJECT", {ObjectRef{behavior.target}});
            } else { // a name nobody registered calls nothing, and keeps it registered
                behavior.name = behavior.name.empty() ? behavior.routine : "";
                call(b, "SETMETHOD", {behavior.name.empty() ? "NOSUCH" : behavior.name});
            }
        } else if (b != 0 && model.behaviors.at(b).kind == Kind::answer && rng() % 2 == 0) {
            std::optional<Value>& response = model.behaviors.at(b).response;
            if (m != 0 && model.messages.at(m).query) { // called directly with a query
                call(b, "EXECUTE", {ObjectRef{m}});
                model.messages.at(m).result = response.value_or(kNoResponse);
            } else if ((response = rng() % 3 ? std::optional(value()) : std::nullopt)) {
                call(b, "SETRESPONSE", {*response});
            } else { // with self alone: cleared, its heap variable freed
                const uint32_t held = pointer(b, "RESPONSE");
                call(b, "SETRESPONSE");
                EXPECT_TRUE(held == 0 || !host.heap_alive(held));
                EXPECT_EQ(pointer(b, "RESPONSE"), 0u);
            }
        } else if (b != 0 && !model.would_stay_filed(b)) {
            const uint32_t response =
                host.isa(ObjectRef{b}, "ZOKFWQUERYBEHAV") ? pointer(b, "RESPONSE") : 0;
            if (const std::string& t = model.behaviors.at(b).text;
                model.behaviors.at(b).kind == Kind::probe && rng() % 2 == 0) {
                // An explicit CLEANUP unregisters and releases, but the text stays;
                // destroying it releases the use again: taken back to keep the count.
                call(b, "CLEANUP");
                EXPECT_EQ(call(b, "ISREGISTERED").as_int(), 0);
                EXPECT_EQ(call(b, "MESSAGESTRING"), Value(t));
                host.call_function("GET_FWIDENT", {t});
            }
            host.destroy(ObjectRef{b});
            model.destroy_behavior(b);
            EXPECT_TRUE(response == 0 || !host.heap_alive(response)) << "its CLEANUP frees it";
        } else if (m != 0) {
            if (model.messages.at(m).query) {
                // An explicit CLEANUP frees the result but keeps its identifier,
                // and the text; destroying it releases the text's use again, as above.
                const uint32_t result = pointer(m, "QUERY_RESULT");
                call(m, "CLEANUP");
                EXPECT_EQ(pointer(m, "QUERY_RESULT"), result);
                EXPECT_FALSE(host.heap_alive(result));
                EXPECT_EQ(call(m, "MESSAGESTRING"), Value(kAsk));
                host.call_function("GET_FWIDENT", {kAsk});
            }
            host.destroy(ObjectRef{m});
            model.messages.erase(m);
        }
        break;
    default:
        if (rng() % 40 == 0) {
            host.reset_session();
            model = Model{};
        } else if (rng() % 4 == 0) {
            save_and_restore();
        }
        break;
    }
}

void MessagingModel::compare() {
    ASSERT_EQ(flux::default_handler() != 0, model.default_key != 0);
    std::map<std::string, int32_t> uses;
    // Every framework object keeps the flag INIT set (through a restore too),
    // its class's version and the handler it names.
    const auto common = [&](uint32_t id, const std::string& version, uint32_t my) {
        EXPECT_NE(host.heap_flags(id) & ZOK_HEAP_HELD, 0u) << id;
        EXPECT_EQ(host.get_tag(ObjectRef{id}, version + "_VERSION").as_int(), 1) << id;
        EXPECT_EQ(host.get_tag(ObjectRef{id}, "MYHANDLER").as_object().id, my) << id;
    };
    for (const auto& [key, handler] : model.handlers) {
        const ObjectRef h{real(key)};
        common(h.id, "ZOKFWMESSAGEHANDLER", handler.my);
        std::vector<std::string> texts;
        for (const auto& [text, set] : handler.scopes) {
            texts.push_back(text);
            uses[text] += 1;
            EXPECT_EQ(filed(h, text), std::vector<uint32_t>(set.begin(), set.end()))
                << "handler " << h.id << " scope " << text;
        }
        EXPECT_EQ(scoped(h), texts) << "handler " << h.id;
    }
    for (const auto& [id, behavior] : model.behaviors) {
        common(id, "ZOKFWBEHAVIOR", behavior.my);
        uses[behavior.text] += 1;
        if (behavior.kind == Kind::method) // the method's name
            uses[behavior.name.empty() ? "NOSUCH" : behavior.name] += 1;
        if (behavior.kind == Kind::answer) {
            EXPECT_EQ(call(id, "RESPONSE"), behavior.response.value_or(kNoResponse));
        }
        EXPECT_EQ(call(id, "ISREGISTERED").as_int(), behavior.registered);
    }
    for (const auto& [id, message] : model.messages) {
        common(id, "ZOKFWMESSAGE", message.my);
        uses[message.text] += 1;
        if (message.query) {
            EXPECT_EQ(call(id, "RESULT"), message.result);
        }
    }
    // Every use the registry counts is held by a live object or a scope key.
    for (const flux::FwIdentEntry& entry : flux::fwident_entries())
        EXPECT_EQ(entry.uses, uses[entry.name]) << entry.name;
    EXPECT_EQ(host.live_temps(), 0u);
    ASSERT_EQ(check_all(), "");
}
// Behaviours, messages and targets go first, then the handlers, the default
// one among them: nothing is left on the heap, in the registry after a
// collection, or in module memory but the registry's name index.
void MessagingModel::take_everything_down() {
    for (const bool handlers : {false, true})
        for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
            if (host.heap_alive(id) && host.isa(ObjectRef{id}, "ZOKFWMESSAGEHANDLER") == handlers)
                host.destroy(ObjectRef{id});
    EXPECT_EQ(flux::default_handler(), 0u);
    host.call_procedure("FWIDENT_GC");
    EXPECT_TRUE(flux::fwident_entries().empty());
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.memory_total().blocks, 1u);
}

TEST_F(MessagingModel, AgreesWithTheModel) {
    rng.seed(test_seed());
    constexpr int kSteps = 4000;
    size_t deliveries = 0; // each of which checked what it was given
    for (int i = 0; i < kSteps; ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        step();
        deliveries += executed.size();
        executed.clear();
        compare();
        if (HasFatalFailure() || HasNonfatalFailure())
            return;
    }
    EXPECT_GT(deliveries, static_cast<size_t>(kSteps) / 100) << "the sequence delivered too little";
    take_everything_down();
}

} // namespace msgtest
