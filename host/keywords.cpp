// Keyword processing: a call's keywords matched against a module's keyword
// table and converted into its results record.
//
// Invariant: every text that processing stores into a results record is held
// by the frame of the call that processed it, until host_keywords_free or the
// end of that call gives it back; a processing that fails holds nothing.
// Absent values without a zero flag are filled with a poison pattern, so a
// module that reads one sees an implausible value rather than a plausible 0.
#include "state.hpp"

#include <cstring>

namespace zok::detail {

void release_held_keywords(Frame& f) {
    if (!f.holds_kw)
        return;
    State& s = state();
    for (size_t i = f.held_from; i < s.held_kw.size(); ++i)
        free_text(s.held_kw[i]);
    s.held_kw.resize(f.held_from);
}

} // namespace zok::detail

using namespace zok::detail;

namespace {

constexpr unsigned char kPoison = 0xA5;

bool by_reference(const zok_keyword_entry& e) {
    return e.type == ZOK_T_UNDEFINED || (e.flags & ZOK_KW_BY_REFERENCE);
}

size_t value_size(const zok_keyword_entry& e) {
    return by_reference(e) ? sizeof(zok_var*) : elem_size(e.type);
}

// Releases what a failed processing made, then raises; the texts of one that
// succeeds are handed to the frame.
struct Held {
    SmallVector<char*, 4> texts;
    bool handed = false;
    ~Held() {
        if (!handed)
            for (char* t : texts)
                free_text(t);
    }
};

} // namespace

extern "C" {

int32_t host_keywords_process(int32_t argc, zok_var** argv, zok_keywords* kw,
                              const zok_keyword_entry* table, zok_var** plain, int32_t reserved,
                              void* results) {
    State& s = state();
    auto bad = [&](const std::string& why) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "host_keywords_process: " + why + where() + ".");
        return 0;
    };
    if (reserved != 1 || !table || !results || argc < 0 || (argc > 0 && (!argv || !plain)))
        return bad("bad arguments");
    if (!table[0].keyword || table[0].keyword[0] != '\0')
        return bad("the keyword table must open with an empty keyword");
    // Each keyword's length and value size, measured once for the steps below.
    SmallVector<size_t, 16> lengths;
    SmallVector<size_t, 16> sizes;
    lengths.push_back(0);
    sizes.push_back(0);
    size_t n = 1;
    for (; table[n].keyword; ++n) {
        const zok_keyword_entry& e = table[n];
        lengths.push_back(std::strlen(e.keyword));
        sizes.push_back(value_size(e));
        if (!by_reference(e) && (sizes[n] == 0 || e.type == ZOK_T_STRUCT))
            return bad(std::string("keyword ") + e.keyword + " has a type it cannot take");
        if (n > 1 && std::strcmp(table[n - 1].keyword, e.keyword) >= 0)
            return bad(std::string("keywords are not in ascending order at ") + e.keyword);
        if (e.given < 8 || e.value < 8)
            return bad(std::string("keyword ") + e.keyword +
                       " has a slot inside the record's leading word");
    }
    auto* rec = static_cast<unsigned char*>(results);
    for (size_t i = 1; i < n; ++i) {
        const zok_keyword_entry& e = table[i];
        int32_t absent = 0;
        std::memcpy(rec + e.given, &absent, sizeof absent);
        bool zero = (e.flags & (ZOK_KW_ZERO_IF_ABSENT | ZOK_KW_NULL_IF_ABSENT)) != 0;
        std::memset(rec + e.value, zero ? 0 : kPoison, sizes[i]);
    }
    std::memset(rec, 0, sizeof(uint64_t));

    static const zok_keywords none{};
    Held held;
    for (const auto& [name, var] : (kw ? kw : &none)->entries) {
        const zok_keyword_entry* match = nullptr;
        int prefixes = 0;
        for (size_t i = 1; i < n; ++i) {
            const std::string_view k(table[i].keyword, lengths[i]);
            if (k == name) {
                match = &table[i];
                prefixes = 1;
                break;
            }
            if (!name.empty() && k.substr(0, name.size()) == name) {
                match = &table[i];
                ++prefixes;
            }
        }
        if (prefixes == 0) {
            raise(ZOK_ERR_UNKNOWN_KEYWORD, ZOK_ACTION_ERROR,
                  "Keyword " + std::string(name) + " not allowed in call to: " + running_routine() +
                      ".");
            return 0;
        }
        if (prefixes > 1) {
            raise(ZOK_ERR_AMBIGUOUS_KEYWORD, ZOK_ACTION_ERROR,
                  "Ambiguous keyword abbreviation: " + std::string(name) + where() + ".");
            return 0;
        }
        const zok_keyword_entry& e = *match;
        if (by_reference(e)) {
            // NOLINTNEXTLINE(bugprone-sizeof-expression): the slot holds the pointer itself
            std::memcpy(rec + e.value, &var, sizeof var);
        } else {
            zok_var converted{};
            bool ok = var && var->type != ZOK_T_UNDEFINED && !(var->flags & ZOK_VF_NOT_SIMPLE) &&
                      convert_scalar(var->type, &var->value, e.type, converted);
            if (!ok) {
                raise(ZOK_ERR_CONVERSION, ZOK_ACTION_ERROR,
                      "Keyword " + std::string(e.keyword) + " must be a scalar " +
                          type_name(e.type) + ", got " +
                          (var ? describe(*var) : std::string("nothing")) + where() + ".");
                return 0;
            }
            if (e.type == ZOK_T_STRING && converted.value.str.text)
                held.texts.push_back(converted.value.str.text);
            std::memcpy(rec + e.value, &converted.value, sizes[static_cast<size_t>(match - table)]);
        }
        int32_t given = 1;
        std::memcpy(rec + e.given, &given, sizeof given);
    }

    for (int32_t i = 0; i < argc; ++i)
        plain[i] = argv[i];
    if (!held.texts.empty()) {
        Frame& f = *s.frame;
        if (!f.holds_kw)
            f.held_from = s.held_kw.size();
        s.held_kw.insert(s.held_kw.end(), held.texts.begin(), held.texts.end());
        f.holds_kw = true;
        held.handed = true;
        uint64_t holds = 1;
        std::memcpy(rec, &holds, sizeof holds);
    }
    return argc;
}

void host_keywords_free(void) {
    release_held_keywords(*state().frame);
}

} // extern "C"
