// ZOKFWMESSAGEHANDLER: filing, sending, scoping and the default handler.
//
// Re-entry: a behaviour's EXECUTE may send, register, unregister, scope,
// unscope and destroy objects while a delivery runs, so every walk over a
// behaviour set that calls out goes over a snapshot ("ZOkfwBehaviorList"),
// and no handler's data address is kept across a call that may free a
// handler (only the default handler is freed here, when its last scope goes).
//
// Failure: an operation first checks, then obtains everything it needs (the
// snapshots, the tree nodes of every insertion and new set, the identifiers,
// the default handler), and only then changes the tables, with steps that
// cannot fail.  What it obtained is held by guards until it commits, so that a
// failure, for want of memory too, leaves everything as it was.
#include "fw/fw_messhndlr.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "fw/fw_behavior.hpp"
#include "fw/fw_message.hpp"
#include "fw/fw_messtext.hpp"

namespace flux {
namespace {

uint32_t the_default = 0;
// The handler that the next default handler made will be, made ahead, or 0.
uint32_t the_spare = 0;

// Tree nodes that re-filing one behaviour may need: a new scope at the root
// (its set and the table's entry) and the behaviour's entry in a set.
constexpr std::size_t kRefilingNodes = 5;
// Tree nodes of one entry inserted into an existing set.
constexpr std::size_t kEntryNodes = 2;

MessageHandlerFields& fields_of(Self self) {
    return self.fields<MessageHandlerFields>();
}

Self handler_self(uint32_t handler) {
    return resolve_instance(handler, MESSAGEHANDLER_CLASS, "handler");
}

// The behaviour set filed under `ident` in this handler's own table, or 0.
// An identifier that has lost its heap variable is used as it is: the
// identifier order raises "FWIdent corruption" only when it compares it.
uint32_t scope_in(Self self, uint32_t ident) {
    const uint32_t table = fields_of(self).behaviors;
    if (table == 0)
        return 0;
    return maph_find_value(table, ident, fwident_order);
}

// Climbs a handler chain, refusing one that loops (MYHANDLER can be pointed at
// a handler below): each handler reached is compared with a mark that moves
// to the current handler after 1, 2, 4, ... steps, so a loop is met again
// within twice its length.  A loop is refused (-3) where the chain would never
// end.
class ChainClimb {
public:
    void visit(uint32_t handler) {
        if (handler == mark_)
            host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR,
                         "ZOKfwMessageHandler: the handler chain loops at handler %u", handler);
        if (++steps_ == span_) {
            mark_ = handler;
            span_ *= 2;
            steps_ = 0;
        }
    }

private:
    uint32_t mark_ = 0;
    uint32_t span_ = 1;
    uint32_t steps_ = 0;
};

// Where a climb for a message ends: the first handler that scopes it and its
// set, or the root of the chain and 0.
struct Reached {
    uint32_t handler;
    uint32_t set;
};

Reached climb_to_scope(uint32_t handler, uint32_t ident) {
    ChainClimb climb;
    for (uint32_t h = handler;;) {
        climb.visit(h);
        const Self self = handler_self(h);
        if (const uint32_t set = scope_in(self, ident))
            return {h, set};
        const uint32_t up = effective_handler(self);
        if (up == 0)
            return {h, 0};
        h = up;
    }
}

// The argument as every receiver of one delivery sees it.  A temporary given
// to two or more behaviours is moved into a plain variable first, so that no
// call can use it up before the next; the caller's temporary is left empty.
class SharedArgument {
public:
    SharedArgument(zok_var* argument, size_t receivers) : passed_(argument) {
        if (argument == nullptr || receivers < 2 || (argument->flags & ZOK_VF_TEMPORARY) == 0)
            return;
        moved_ = *argument;
        moved_.flags &= static_cast<uint8_t>(~ZOK_VF_TEMPORARY);
        *argument = zok_var{};
        argument->flags = ZOK_VF_TEMPORARY;
        passed_ = &moved_;
    }
    SharedArgument(const SharedArgument&) = delete;
    SharedArgument& operator=(const SharedArgument&) = delete;
    ~SharedArgument() {
        if (passed_ == &moved_)
            host_var_free_value(&moved_);
    }
    zok_var* get() const { return passed_; }

private:
    zok_var* passed_;
    zok_var moved_{};
};

// behavior_order as a type of its own, so that set searches compare inline.
constexpr auto by_behavior = [](uint32_t a, uint32_t b) { return behavior_order(a, b); };

uint32_t message_ident_of_behavior(uint32_t behavior) {
    return resolve_instance(behavior, BEHAVIOR_CLASS, "1").fields<BehaviorFields>().messident;
}

// Puts a behaviour into a set unless it is there already.
void file_behavior(uint32_t set, uint32_t behavior) {
    if (maph_find_or_insert(set, behavior, 0, by_behavior) == 0)
        raise_no_memory("ZOKfwMessageHandler");
}

// A root whose CLEANUP has run has no table to scope a message in.
void refuse_cleaned_up_root(uint32_t root) {
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR,
                 "ZOKfwMessageHandler: handler %u has been cleaned up", root);
}

void reserve(MaphReserve& nodes, std::size_t count) {
    if (!nodes.add(count))
        raise_no_memory("ZOKfwMessageHandler");
}

// A handler of the module's own, which files nothing: the default handler or a spare.
uint32_t make_held_handler() {
    TempGuard cls(host_find_class(MESSAGEHANDLER_CLASS.name));
    zok_var* args[] = {cls.get()};
    TempGuard object(host_object_new(1, args, nullptr));
    const uint32_t handler = object->value.heap_id;
    hold_heap_var(handler);
    return handler;
}

// Frees a handler of the module's own, which files nothing.
void drop_held_handler(uint32_t handler) {
    const uint32_t table = fields_of(handler_self(handler)).behaviors;
    host_heap_free(handler, 0, 0);
    maph_free(table);
}

void drop_default_handler() {
    const uint32_t handler = the_default;
    the_default = 0;
    drop_held_handler(handler);
}

// Where removing a behaviour, starting at `handler`, takes it out: the first
// handler up the chain whose scope for `ident` files it, its set and the
// behaviour's entry; all 0 when none does.  `passed_over`, a set already taken
// out of its table, is not searched.
struct Filed {
    uint32_t handler = 0;
    uint32_t set = 0;
    uint32_t entry = 0;
};

Filed find_filed(uint32_t handler, uint32_t behavior, uint32_t ident, uint32_t passed_over = 0) {
    ChainClimb climb;
    for (uint32_t h = handler; h != 0;) {
        climb.visit(h);
        const Self self = handler_self(h);
        if (const uint32_t set = scope_in(self, ident); set != 0 && set != passed_over)
            if (const uint32_t entry = maph_find(set, behavior, by_behavior))
                return {h, set, entry};
        h = effective_handler(self);
    }
    return {};
}

} // namespace

BehaviorList::BehaviorList(uint32_t set, const char* free_label) : free_label_(free_label) {
    if (set == 0)
        return;
    // Copies keys into out[n..room) from entry e on; returns the entry it stopped at.
    // One look-up per leaf: its key and its next link come from the same node.
    auto gather = [set](uint32_t e, uint32_t* out, std::size_t room, std::size_t& n) {
        for (; e != set && n < room; ++n) {
            const RbhNodeData* leaf = map_rbh_node(e);
            out[n] = leaf->key;
            e = leaf->flink;
        }
        return e;
    };
    // The first identifiers gather on the stack while the walk counts; only a set
    // larger than that is walked on from where the stack filled up.
    constexpr std::size_t kOnStack = 128;
    uint32_t first[kOnStack];
    std::size_t gathered = 0;
    const uint32_t rest = gather(maph_first(set), first, kOnStack, gathered);
    count_ = gathered;
    for (uint32_t e = rest; e != set; ++count_)
        e = maph_next(e);
    if (count_ == 0)
        return;
    ids_ = static_cast<uint32_t*>(host_mem_alloc(count_ * sizeof(uint32_t), "ZOkfwBehaviorList"));
    if (ids_ == nullptr)
        raise_no_memory("ZOKfwMessageHandler");
    std::copy_n(first, gathered, ids_);
    gather(rest, ids_, count_, gathered);
}

BehaviorList::~BehaviorList() {
    if (ids_ == nullptr)
        return;
    if (free_label_ != nullptr)
        host_mem_free_tagged(ids_, free_label_);
    else
        host_mem_free(ids_);
}

SpareDefaultHandler::SpareDefaultHandler() {
    if (the_spare == 0)
        the_spare = make_held_handler();
}

SpareDefaultHandler::~SpareDefaultHandler() {
    if (the_spare != 0)
        drop_held_handler(the_spare);
    the_spare = 0;
}

Refiling::Refiling(uint32_t set, uint32_t taken_from, const char* free_label)
    : movers_(set, free_label) {
    const uint32_t passed_over = taken_from != 0 ? set : 0;
    // Each registered behaviour is checked, so that nothing is refused half way,
    // and its climbs are made now, which makes the default handler when they
    // reach it: up to the scope it lands in, and out of the scope that files
    // it (past the one taken out, up to the root when nothing above files it).
    std::size_t from_default = 0;
    for (const uint32_t behavior : movers_) {
        const Self self = resolve_instance(behavior, BEHAVIOR_CLASS, "1");
        if (self.fields<BehaviorFields>().is_registered == 0)
            continue;
        const uint32_t ident = self.fields<BehaviorFields>().messident;
        if (fwident_text(ident) == nullptr)
            raise_module_message(MSG_FWMSG_IDCORRUPT);
        ++registered_;
        const uint32_t from = effective_handler(self);
        if (climb_to_scope(from, ident).set == 0)
            root_keys_.emplace_back(fwident_text(ident));
        const uint32_t filed_in = find_filed(from, behavior, ident, passed_over).handler;
        if (filed_in != 0 && filed_in == the_default)
            ++from_default;
    }
    // Each removal from the default handler can take one of its scopes away;
    // when they can take all, the last one goes and a behaviour filed at the
    // root after it needs a new default handler.
    if (from_default == 0)
        return;
    const std::size_t scopes = maph_count(fields_of(handler_self(the_default)).behaviors) -
                               (taken_from == the_default ? 1 : 0);
    if (scopes != 0 && scopes <= from_default)
        spare_.emplace();
}

std::size_t Refiling::nodes() const {
    return kRefilingNodes * registered_;
}

void Refiling::run() {
    for (IdentReservation& key : root_keys_)
        key.commit();
    for (const uint32_t behavior : movers_)
        behavior_reregister(behavior);
}

DefaultHandlerGuard::DefaultHandlerGuard() : armed_(the_default == 0) {}

DefaultHandlerGuard::~DefaultHandlerGuard() {
    if (armed_ && the_default != 0 && maph_is_empty(fields_of(handler_self(the_default)).behaviors))
        drop_default_handler();
}

ScopePlan::ScopePlan(uint32_t handler, uint32_t ident) : handler_(handler) {
    const Self self = handler_self(handler);
    if (fields_of(self).behaviors == 0 || scope_in(self, ident) != 0)
        return;
    // Stricter than taking the argument as the key: the table keeps the
    // registry's own identifier of the text, with a use of its own, so a lost
    // identifier cannot be made a key.
    const zok_string* text = fwident_text(ident);
    if (text == nullptr)
        raise_module_message(MSG_FWMSG_IDCORRUPT);
    key_.emplace(text);
    // The handler above is found (the default handler made) before anything changes.
    if (const uint32_t above = effective_handler(self))
        if (const uint32_t enclosing = climb_to_scope(above, key_->ident()).set)
            movers_.emplace(enclosing, 0, nullptr);
}

std::size_t ScopePlan::nodes() const {
    // The new set and the table's entry, then each registered behaviour pulled down.
    return needed() ? 3 + (movers_ ? movers_->nodes() : 0) : 0;
}

void ScopePlan::commit() {
    if (!needed())
        return;
    const uint32_t key = key_->ident();
    const uint32_t table = fields_of(handler_self(handler_)).behaviors;
    const uint32_t set = maph_new();
    if (set == 0 || maph_insert_gkey(table, key, set, fwident_order) == 0)
        raise_no_memory("ZOKfwMessageHandler");
    fwident_acquire(key);
    key_->commit();
    if (movers_)
        movers_->run();
}

MessageInit::MessageInit(Self self, const KeywordFront* keywords, bool may_register)
    : self_(self), register_(may_register && keywords != nullptr && keywords->register_value != 0),
      generic_("Generic Message") {
    if (keywords == nullptr)
        return;
    if (keywords->messagestring_given != 0)
        text_.emplace(&keywords->messagestring);
    const uint32_t ident = text_ ? text_->ident() : generic_.ident();
    // The handler that the HANDLER keyword is about to give (MYHANDLER is written later).
    auto handler = [&] {
        return effective_handler_of(self.heap_id,
                                    keywords->h.handler_given != 0 ? keywords->h.handler : 0);
    };
    std::size_t nodes = 0;
    // Scoping first: a behaviour given both lands in its own handler's new scope.
    if (keywords->scope != 0) {
        scope_.emplace(handler(), ident);
        nodes += scope_->nodes();
    }
    if (register_) {
        // The behaviour's entry in the set it lands in: one that exists, or the
        // scope made above, or one at the root made by REGISTER.
        std::size_t filing = kEntryNodes;
        // The climb that REGISTER will make, so that it makes the default handler now.
        if (!(scope_ && scope_->needed())) {
            const Reached at = climb_to_scope(handler(), ident);
            reached_ = at.set;
            if (at.set == 0) {
                if (fields_of(handler_self(at.handler)).behaviors == 0)
                    refuse_cleaned_up_root(at.handler);
                filing = kRefilingNodes;
            }
        }
        nodes += filing;
    }
    reserve(nodes_, nodes);
}

void MessageInit::finish(uint32_t& ident_field) {
    // "Generic Message" is the identifier first held, and stays known when the
    // MESSAGESTRING keyword replaces it.
    IdentReservation& message = text_ ? *text_ : generic_;
    ident_field = message.ident();
    message.acquire();
    generic_.commit();
    if (text_)
        text_->commit();
    if (scope_)
        scope_->commit();
    if (register_)
        behavior_register(self_, reached_);
    made_default_.commit();
}

uint32_t default_handler() {
    return the_default;
}

uint32_t ensure_default_handler() {
    if (the_default == 0) {
        the_default = the_spare != 0 ? the_spare : make_held_handler();
        the_spare = 0;
    }
    return the_default;
}

uint32_t find_scope(uint32_t handler, uint32_t ident) {
    return scope_in(handler_self(handler), ident);
}

uint32_t receiving_set(uint32_t handler, uint32_t ident) {
    return climb_to_scope(handler, ident).set;
}

void deliver(const BehaviorList& receivers, zok_var* argument) {
    const SharedArgument shared(argument, receivers.size());
    for (const uint32_t behavior : receivers)
        execute_behavior(behavior, shared.get());
}

void send_message(uint32_t handler, uint32_t ident, zok_var* argument) {
    const BehaviorList receivers(receiving_set(handler, ident));
    deliver(receivers, argument);
}

void add_behavior(uint32_t handler, uint32_t behavior) {
    add_behavior(handler, behavior, message_ident_of_behavior(behavior));
}

void add_behavior(uint32_t handler, uint32_t behavior, uint32_t ident, uint32_t reached) {
    DefaultHandlerGuard made_default;
    const Reached at = reached != 0 ? Reached{0, reached} : climb_to_scope(handler, ident);
    MaphReserve nodes;
    std::optional<ScopePlan> root_scope;
    if (at.set == 0) {
        // Nobody scopes the message: the root does from now on.
        root_scope.emplace(at.handler, ident);
        if (!root_scope->needed())
            refuse_cleaned_up_root(at.handler);
        reserve(nodes, root_scope->nodes() + kEntryNodes);
    }
    made_default.commit();
    if (root_scope)
        root_scope->commit();
    // Into a set that exists, the insertion makes both its nodes before it links
    // either, so it fails without a change by itself; a climb that found a set
    // made no default handler.
    file_behavior(at.set != 0 ? at.set : find_scope(at.handler, ident), behavior);
}

void remove_behavior(uint32_t handler, uint32_t behavior) {
    remove_behavior(handler, behavior, message_ident_of_behavior(behavior));
}

void remove_behavior(uint32_t handler, uint32_t behavior, uint32_t ident) {
    const Filed at = find_filed(handler, behavior, ident);
    if (at.entry == 0)
        return;
    maph_remove_node(at.entry);
    if (at.handler == the_default && maph_is_empty(at.set))
        unscope_message(at.handler, ident);
}

bool removal_frees_default(uint32_t handler, uint32_t behavior) {
    const Filed at = find_filed(handler, behavior, message_ident_of_behavior(behavior));
    return at.entry != 0 && at.handler == the_default && maph_count(at.set) == 1 &&
           maph_count(fields_of(handler_self(at.handler)).behaviors) == 1;
}

void scope_message(uint32_t handler, uint32_t ident) {
    DefaultHandlerGuard made_default;
    ScopePlan plan(handler, ident);
    MaphReserve nodes;
    reserve(nodes, plan.nodes());
    made_default.commit();
    plan.commit();
}

void unscope_message(uint32_t handler, uint32_t ident) {
    const uint32_t table = fields_of(handler_self(handler)).behaviors;
    if (table == 0)
        return;
    if (const uint32_t entry = maph_find(table, ident, fwident_order)) {
        const uint32_t set = maph_node_value(entry);
        const uint32_t key = maph_node_key(entry);
        DefaultHandlerGuard made_default;
        Refiling moving(set, handler, "messagehandler_unscopeMessage");
        MaphReserve nodes;
        reserve(nodes, moving.nodes());
        made_default.commit();
        // Out of the table before anything moves, so that nothing below can find it.
        maph_remove_node(entry);
        const Undo drop_scope([set, key] {
            maph_free(set);
            fwident_release(key);
        });
        moving.run();
    }
    // Re-registration may have filed behaviours here again, or freed this very
    // handler if it was the default one.
    if (handler != the_default)
        return;
    if (!maph_is_empty(fields_of(handler_self(handler)).behaviors))
        return;
    drop_default_handler();
}

namespace {

std::string text_or_missing(uint32_t ident) {
    const zok_string* text = fwident_text(ident);
    return text != nullptr ? std::string(text->text, text->length) : "(no text)";
}

// The data of a live message handler, or null.
MessageHandlerFields* live_handler(uint32_t handler) {
    return static_cast<MessageHandlerFields*>(live_instance(handler, MESSAGEHANDLER_CLASS));
}

std::string check_behavior_set(uint32_t set, const std::string& where, bool full) {
    if (set == 0 || host_heap_var(set) == nullptr)
        return where + " has no behaviour set";
    if (std::string fault = map_rbh_check(set, behavior_order); !fault.empty())
        return where + ": " + fault;
    uint32_t previous = 0;
    for (uint32_t e = maph_first(set); e != set; e = maph_next(e)) {
        const uint32_t behavior = maph_node_key(e);
        const std::string named = where + " files behaviour " + std::to_string(behavior);
        if (full && live_instance(behavior, BEHAVIOR_CLASS) == nullptr)
            return named + ", which is no live behaviour";
        if (maph_node_value(e) != 0)
            return named + " with a value";
        if (previous != 0 && behavior_order(previous, behavior) >= 0)
            return named + " twice or out of order";
        previous = behavior;
    }
    return "";
}

// A text as a Graphviz string: quotes and backslashes escaped, control bytes shown.
std::string dot_quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string check_handler(uint32_t handler, bool full) {
    const std::string name = "handler " + std::to_string(handler);
    const MessageHandlerFields* f = live_handler(handler);
    if (f == nullptr)
        return name + " is no live message handler";
    const uint32_t table = f->behaviors;
    if (table == 0)
        return "";
    if (host_heap_var(table) == nullptr)
        return name + ": its scope table has gone";
    if (std::string fault = map_rbh_check(table, nullptr); !fault.empty())
        return name + ": scope table: " + fault;
    std::map<uint32_t, int32_t> uses;
    for (const FwIdentEntry& entry : fwident_entries())
        uses[entry.ident] = entry.uses;
    const zok_string* previous = nullptr;
    for (uint32_t e = maph_first(table); e != table; e = maph_next(e)) {
        const uint32_t key = maph_node_key(e);
        const zok_string* text = fwident_text(key);
        const std::string scope = name + ": scope \"" + text_or_missing(key) + "\"";
        if (text != nullptr && previous != nullptr && host_string_compare(previous, text) >= 0)
            return scope + " is twice in the table or out of order";
        if (full) {
            const auto counted = uses.find(key);
            if (counted == uses.end())
                return scope + " (key " + std::to_string(key) +
                       ") is keyed by no live identifier of the registry";
            if (counted->second < 1)
                return scope + ": the registry counts no use for the table's key";
        }
        if (std::string fault = check_behavior_set(maph_node_value(e), scope, full); !fault.empty())
            return fault;
        if (text != nullptr)
            previous = text;
    }
    return "";
}

} // namespace

std::string messagehandler_check(uint32_t handler) {
    return check_handler(handler, true);
}

std::string messagehandler_check_structure(uint32_t handler) {
    return check_handler(handler, false);
}

namespace {

// The class of a live object: what the picture calls it, since a program's
// subclass may stand where a framework class is expected.
std::string class_name_of(uint32_t id) {
    const zok_heap_record* rec = host_heap_var(id);
    return rec != nullptr && rec->var.type == ZOK_T_STRUCT ? rec->var.value.st.def->name : "(gone)";
}

// A behaviour's own message text, which SETMESSAGESTRING may have moved away
// from the scope it is filed under.
std::string behavior_text(uint32_t behavior) {
    const auto* fields =
        static_cast<const BehaviorFields*>(live_instance(behavior, BEHAVIOR_CLASS));
    return fields != nullptr ? text_or_missing(fields->messident) : "(no behaviour)";
}

// A Graphviz label of two lines, each quoted on its own.
std::string two_line_label(const std::string& first, const std::string& second) {
    std::string label = dot_quoted(first);
    label.back() = '\\';
    return label + "n" + dot_quoted(second).substr(1);
}

} // namespace

std::string handler_chain_dot(std::span<const uint32_t> handlers) {
    std::string out = "digraph handlers {\n  rankdir=BT;\n  node [fontname=\"Helvetica\"];\n";
    char node[64];
    std::set<uint32_t> drawn;
    std::set<uint32_t> behaviors_drawn;
    const auto edge = [&out](const char* from, const char* to, const char* style) {
        out += std::string("  ") + from + " -> " + to + style + ";\n";
    };
    for (const uint32_t start : handlers) {
        for (uint32_t h = start; h != 0 && drawn.insert(h).second;) {
            char handler_node[32];
            std::snprintf(handler_node, sizeof handler_node, "h%u", h);
            const MessageHandlerFields* f = live_handler(h);
            if (f == nullptr) {
                out += std::string("  ") + handler_node +
                       " [shape=box, style=dashed, label=\"no handler\"];\n";
                break;
            }
            const bool is_default = h == the_default;
            out += std::string("  ") + handler_node + " [shape=box, " +
                   (is_default ? "peripheries=2, " : "") + "label=" +
                   (is_default ? two_line_label(class_name_of(h), "(default handler)")
                               : dot_quoted(class_name_of(h))) +
                   "];\n";
            const uint32_t table = f->behaviors;
            if (table != 0 && host_heap_var(table) != nullptr) {
                for (uint32_t e = maph_first(table); e != table; e = maph_next(e)) {
                    const uint32_t key = maph_node_key(e);
                    const uint32_t set = maph_node_value(e);
                    char scope_node[48];
                    std::snprintf(scope_node, sizeof scope_node, "s%u_%u", h, key);
                    out += std::string("  ") + scope_node +
                           " [shape=ellipse, label=" + dot_quoted(text_or_missing(key)) + "];\n";
                    edge(scope_node, handler_node, " [arrowhead=none]");
                    if (set == 0 || host_heap_var(set) == nullptr)
                        continue;
                    for (uint32_t b = maph_first(set); b != set; b = maph_next(b)) {
                        const uint32_t behavior = maph_node_key(b);
                        std::snprintf(node, sizeof node, "b%u", behavior);
                        if (behaviors_drawn.insert(behavior).second)
                            out +=
                                std::string("  ") + node + " [shape=box, style=rounded, label=" +
                                two_line_label(class_name_of(behavior), behavior_text(behavior)) +
                                "];\n";
                        edge(node, scope_node, "");
                    }
                }
            }
            const uint32_t up = f->myhandler != 0 ? f->myhandler : (is_default ? 0 : the_default);
            if (up != 0) {
                std::snprintf(node, sizeof node, "h%u", up);
                edge(handler_node, node, " [style=bold]");
            }
            h = up;
        }
    }
    return out + "}\n";
}

void messagehandler_session_reset() {
    the_default = 0;
    the_spare = 0;
}

void messagehandler_forget() {
    the_default = 0;
    the_spare = 0;
}

namespace {

int32_t messagehandler_initialise(Self self, const HandlerKeywords* keywords) {
    // Checked and made before any field changes: an INIT run again on a live
    // handler fails without a change too.
    check_handler_keyword(keywords);
    const uint32_t table = maph_new();
    if (table == 0)
        raise_no_memory("ZOKfwMessageHandler::Init");
    if (hasahandler_initialise(self, keywords) == 0) {
        maph_free(table);
        return 0;
    }
    MessageHandlerFields& f = fields_of(self);
    f.messagehandler_version = 1;
    f.behaviors = table;
    return 1;
}

void messagehandler_cleanup(Self self) {
    if (self.heap_id == the_default)
        the_default = 0;
    hasahandler_cleanup(self);
    MessageHandlerFields& f = fields_of(self);
    const uint32_t table = f.behaviors;
    if (table == 0)
        return;
    // Behaviours are not moved anywhere: they are only told they are filed
    // nowhere.  Nothing here calls out, so the sets are walked as they are, and
    // nothing here can fail.
    for (uint32_t e = maph_first(table); e != table; e = maph_next(e)) {
        fwident_release(maph_node_key(e));
        const uint32_t set = maph_node_value(e);
        if (set == 0 || host_heap_var(set) == nullptr)
            continue;
        for (uint32_t b = maph_first(set); b != set; b = maph_next(b))
            if (auto* filed =
                    static_cast<BehaviorFields*>(live_instance(maph_node_key(b), BEHAVIOR_CLASS)))
                filed->is_registered = 0;
        maph_free(set);
    }
    maph_free(table);
    f.behaviors = 0;
}

void messagehandler_restore(Self self) {
    hasahandler_restore(self);
    MessageHandlerFields& f = fields_of(self);
    if (f.messagehandler_version < 1) {
        f.messagehandler_version = 1;
        f.behaviors = maph_new();
        if (f.behaviors == 0)
            raise_no_memory("ZOKfwMessageHandler::Restore");
    }
    // A translation keeps the text, so the table stays in order as it is.
    const uint32_t table = f.behaviors;
    if (table == 0)
        return;
    for (uint32_t e = maph_first(table); e != table; e = maph_next(e)) {
        const uint32_t live = fwident_rollover(maph_node_key(e));
        map_rbh_node(e)->key = live;
    }
}

// The message argument of the handler's routines, as an identifier: a text's
// (whose use is counted while the routine runs, the text's entry obtained ahead
// until the routine commits), an identifier itself, or a message object's.
class MessageArgument {
public:
    explicit MessageArgument(const zok_var* v) {
        const bool scalar = (v->flags & ZOK_VF_NOT_SIMPLE) == 0;
        if (scalar && v->type == ZOK_T_STRING) {
            text_.emplace(&v->value.str);
            ident_ = text_->ident();
            fwident_acquire(ident_);
            counted_ = true;
        } else if (scalar && v->type == ZOK_T_POINTER) {
            // Null or lost, it is still the identifier: only a comparison with a
            // key raises "FWIdent corruption".
            ident_ = v->value.heap_id;
        } else if (scalar && v->type == ZOK_T_OBJECT) {
            // Stricter than reading MESS_IDENT of any object: a message object's
            // class is checked (-572).
            ident_ = message_ident(v->value.heap_id, "message");
        } else {
            host_message(ZOK_MSG_WRONG_CLASS, ZOK_ACTION_ERROR, "message", "ZOKfwMessage");
        }
    }
    MessageArgument(const MessageArgument&) = delete;
    MessageArgument& operator=(const MessageArgument&) = delete;
    ~MessageArgument() {
        if (counted_)
            fwident_release(ident_);
    }
    uint32_t ident() const { return ident_; }
    // The routine can no longer fail, or is about to call out.
    void commit() {
        if (text_)
            text_->commit();
    }

private:
    std::optional<IdentReservation> text_;
    uint32_t ident_ = 0;
    bool counted_ = false;
};

Self messagehandler_self(zok_var** argv) {
    return class_self(argv, MESSAGEHANDLER_CLASS);
}

zok_var* messagehandler_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<HandlerKeywords>(
        argc, argv, kw, handler_keyword_table, MESSAGEHANDLER_CLASS,
        [](Self self, const HandlerKeywords& k) { return messagehandler_initialise(self, &k); });
}

zok_var* messagehandler_behaviors(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    MessageArgument message(argv[1]);
    const uint32_t set = scope_in(self, message.ident());
    const size_t count = set != 0 ? maph_count(set) : 0;
    zok_var* result = nullptr;
    if (count == 0) {
        result = host_temp_var();
        result->type = ZOK_T_OBJECT;
    } else {
        auto* ids = static_cast<uint32_t*>(
            host_make_temp_vector(ZOK_T_OBJECT, static_cast<int32_t>(count), 1, &result));
        for (uint32_t e = maph_first(set); e != set; e = maph_next(e))
            *ids++ = maph_node_key(e);
    }
    message.commit();
    return result;
}

zok_var* messagehandler_isscoped(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    MessageArgument message(argv[1]);
    const bool scoped = scope_in(self, message.ident()) != 0;
    zok_var* result = host_temp_var();
    result->type = ZOK_T_SHORT;
    result->value.short_val = scoped ? 1 : 0;
    message.commit();
    return result;
}

zok_var* messagehandler_scopedmessages(int32_t, zok_var** argv, zok_keywords*) {
    const uint32_t table = fields_of(messagehandler_self(argv)).behaviors;
    const size_t count = table != 0 ? maph_count(table) : 0;
    zok_var* result = nullptr;
    auto* texts = static_cast<zok_string*>(
        host_make_temp_vector(ZOK_T_STRING, static_cast<int32_t>(count), 1, &result));
    TempGuard guard(result);
    if (count == 0)
        return guard.release();
    for (uint32_t e = maph_first(table); e != table; e = maph_next(e)) {
        const zok_string* text = fwident_text(maph_node_key(e));
        if (text == nullptr)
            raise_module_message(MSG_FWMSG_IDCORRUPT);
        // Copied before it is stored, so that an unwind never frees a borrowed text.
        zok_string copy = *text;
        host_string_duplicate(&copy, 1);
        *texts++ = copy;
    }
    return guard.release();
}

void messagehandler_addbehavior(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    add_behavior(self.heap_id, object_argument(argv[1]));
}

void messagehandler_removebehavior(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    remove_behavior(self.heap_id, object_argument(argv[1]));
}

void messagehandler_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    messagehandler_cleanup(messagehandler_self(argv));
}

void messagehandler_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    messagehandler_restore(messagehandler_self(argv));
}

void messagehandler_scopemessage(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    MessageArgument message(argv[1]);
    scope_message(self.heap_id, message.ident());
    message.commit();
}

void messagehandler_sendmessage(int32_t argc, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    MessageArgument message(argv[1]);
    DefaultHandlerGuard made_default;
    const BehaviorList receivers(receiving_set(self.heap_id, message.ident()));
    message.commit();
    made_default.commit();
    deliver(receivers, argc == 3 ? argv[2] : nullptr);
}

void messagehandler_unscopemessage(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = messagehandler_self(argv);
    MessageArgument message(argv[1]);
    unscope_message(self.heap_id, message.ident());
    message.commit();
}

constexpr zok_routine_entry functions[] = {
    function_entry(messagehandler_behaviors, "ZOKFWMESSAGEHANDLER::BEHAVIORS", 2, 2),
    function_entry(messagehandler_init, "ZOKFWMESSAGEHANDLER::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(messagehandler_isscoped, "ZOKFWMESSAGEHANDLER::ISSCOPED", 2, 2),
    function_entry(messagehandler_scopedmessages, "ZOKFWMESSAGEHANDLER::SCOPEDMESSAGES", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(messagehandler_addbehavior, "ZOKFWMESSAGEHANDLER::ADDBEHAVIOR", 2, 3),
    procedure_entry(messagehandler_cleanup_method, "ZOKFWMESSAGEHANDLER::CLEANUP", 1, 1),
    procedure_entry(messagehandler_removebehavior, "ZOKFWMESSAGEHANDLER::REMOVEBEHAVIOR", 2, 3),
    procedure_entry(messagehandler_restore_method, "ZOKFWMESSAGEHANDLER::RESTORE", 1, 1),
    procedure_entry(messagehandler_scopemessage, "ZOKFWMESSAGEHANDLER::SCOPEMESSAGE", 2, 2),
    procedure_entry(messagehandler_sendmessage, "ZOKFWMESSAGEHANDLER::SENDMESSAGE", 2, 3),
    procedure_entry(messagehandler_unscopemessage, "ZOKFWMESSAGEHANDLER::UNSCOPEMESSAGE", 2, 2),
};

} // namespace

const RoutineList messagehandler_routines{functions, procedures};

} // namespace flux
