// Named structures: definition from tag tables, the registry by name, the
// prepared string-tag list and tag look-up.
//
// Invariants: a StructInfo's `tags` lists the parent's tags first, then its own,
// each at its natural alignment, laid out as one flat list (a child's first tag
// may sit in what would be the parent's tail padding); `def.size` is `end`
// rounded up to a multiple of `def.align`;
// `string_offsets` holds the count of string tags and then their offsets; a
// definition, once made, never changes and lives as long as the host.
#include "state.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <strings.h>

namespace zok::detail {

namespace {

// Upper-case letters, digits and the punctuation of names are no lower-case
// letter in any locale, so toupper leaves them as they are without being asked.
constexpr bool kept_by_toupper_slow(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == ':' || c == '$';
}

// The same by one load a character: names are checked on every call by text.
constexpr auto kKeptByToupper = [] {
    std::array<bool, 256> kept{};
    for (unsigned c = 0; c < kept.size(); ++c)
        kept[c] = kept_by_toupper_slow(static_cast<unsigned char>(c));
    return kept;
}();

bool kept_by_toupper(char c) {
    return kKeptByToupper[static_cast<unsigned char>(c)];
}

char to_upper(char c) {
    return kept_by_toupper(c) ? c : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

} // namespace

// Whether none of the eight bytes is a lower-case ASCII letter or a byte
// above 0x7f: such a word is in upper case whatever the locale.
bool plain_upper_word(uint64_t w) {
    constexpr uint64_t ones = 0x0101010101010101, highs = 0x8080808080808080;
    // For bytes below 0x80 the additions do not carry into the next byte: the
    // first sets a byte's high bit when it is at least 'a', the second when it
    // is above 'z'.
    const uint64_t from_a = w + ones * (0x80 - 'a');
    const uint64_t past_z = w + ones * (0x80 - 'z' - 1);
    return ((from_a & ~past_z & highs) | (w & highs)) == 0;
}

bool is_upper(std::string_view s) {
    // Names are checked on every call by text: eight bytes at a time (the last
    // word overlapping, a short name zero-padded), by byte only when a word is
    // not plainly upper case.
    const size_t n = s.size();
    if (n == 0)
        return true;
    bool plain = true;
    uint64_t w = 0;
    if (n < 8) {
        std::memcpy(&w, s.data(), n);
        plain = plain_upper_word(w);
    } else {
        for (size_t i = 0; plain && i < n; i += 8) {
            std::memcpy(&w, s.data() + std::min(i, n - 8), 8);
            plain = plain_upper_word(w);
        }
    }
    if (plain)
        return true;
    for (char c : s)
        if (!kept_by_toupper(c) && to_upper(c) != c)
            return false;
    return true;
}

std::string upper(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = to_upper(c);
    return out;
}

const StructInfo::Tag* StructInfo::find_tag(std::string_view tag) const {
    // Modules pass tag names as defined (upper case): an exact match is tried
    // first, as it is much cheaper than a comparison that ignores case.
    for (const Tag& t : tags)
        if (t.name.size() == tag.size() &&
            (std::memcmp(t.name.data(), tag.data(), tag.size()) == 0 ||
             strncasecmp(t.name.data(), tag.data(), tag.size()) == 0))
            return &t;
    return nullptr;
}

const StructInfo::Tag* StructInfo::find_tag(const char* tag) const {
    const auto address = reinterpret_cast<uintptr_t>(tag);
    TagHit& hit = tag_hits_[(address ^ (address >> 5)) % tag_hits_.size()];
    // The text at an address may change between calls: the hit is checked against it.
    if (hit.address == tag && std::strcmp(hit.tag->name.c_str(), tag) == 0)
        return hit.tag;
    const Tag* found = find_tag(std::string_view(tag));
    if (found)
        hit = {tag, found};
    return found;
}

StructInfo* struct_info_slow(const zok_struct_def* def) {
    State& s = state();
    auto it = s.struct_by_def.find(def);
    if (it == s.struct_by_def.end())
        return nullptr;
    s.last_def = *it;
    s.def_hits[def_hit_index(def)] = *it;
    return it->second;
}

StructInfo* find_struct(std::string_view name) {
    State& s = state();
    // A program makes objects of one class in a row: the structure found last
    // is tried first, by its own (upper-case) name.
    if (s.last_struct != nullptr && s.last_struct->name == name)
        return s.last_struct;
    // Names are kept in upper case; one given so needs no copy.
    auto it = is_upper(name) ? s.structs.find(name) : s.structs.find(upper(name));
    if (it == s.structs.end())
        return nullptr;
    s.last_struct = it->second.get();
    return s.last_struct;
}

namespace {

bool valid_tag_type(int64_t type) {
    return type > 0 && type <= 0xff && is_valid_type(static_cast<uint8_t>(type)) &&
           type != ZOK_T_STRUCT;
}

size_t align_of(uint8_t type) {
    return type == ZOK_T_STRING ? alignof(zok_string) : elem_size(type);
}

bool same_layout(const StructInfo& a, const StructInfo& b) {
    if (a.parent != b.parent || a.tags.size() != b.tags.size())
        return false;
    for (size_t i = 0; i < a.tags.size(); ++i)
        if (a.tags[i].name != b.tags[i].name || a.tags[i].type != b.tags[i].type)
            return false;
    return true;
}

StructInfo* refuse(const std::string& name, const std::string& why) {
    raise(ZOK_ERR_STRUCT, ZOK_ACTION_WARN,
          "Structure " + name + " cannot be defined: " + why + where() + ".");
    return nullptr;
}

} // namespace

StructInfo* define_struct(const char* name_text, const zok_tag_entry* tags) {
    State& s = state();
    if (!name_text || !*name_text)
        return refuse("(unnamed)", "it has no name");
    std::string name = upper(name_text);
    if (!tags)
        return refuse(name, "it has no tag table");
    auto info = std::make_unique<StructInfo>();
    info->name = name;
    size_t offset = 0, align = 1;
    const zok_tag_entry* t = tags;
    if (t->name && (t->flags & ZOK_TAG_INHERIT)) {
        if (t->type != 0)
            return refuse(name, "its inheritance entry has a type");
        StructInfo* parent = find_struct(t->name);
        if (!parent)
            return refuse(name, "it inherits " + std::string(t->name) + ", which is not defined");
        info->parent = parent;
        info->tags = parent->tags;
        // Flat: the own tags continue where the parent's last tag ends, as if
        // the parent's tags were listed in this table.
        offset = parent->end;
        align = parent->def.align;
        ++t;
    }
    for (; t->name; ++t) {
        std::string tag = upper(t->name);
        if (tag.empty())
            return refuse(name, "a tag has no name");
        if (t->flags & ZOK_TAG_INHERIT)
            return refuse(name, "the inheritance entry " + tag + " is not first");
        if (t->dimensions)
            return refuse(name, "tag " + tag + " is not a scalar");
        if (!valid_tag_type(t->type))
            return refuse(name, "tag " + tag +
                                    format(" has type %lld, which a tag cannot have",
                                           static_cast<long long>(t->type)));
        if (info->find_tag(tag))
            return refuse(name, "tag " + tag + " appears twice");
        auto type = static_cast<uint8_t>(t->type);
        size_t a = align_of(type);
        offset = (offset + a - 1) / a * a;
        info->tags.push_back({tag, type, static_cast<uint32_t>(offset)});
        offset += elem_size(type);
        align = std::max(align, a);
    }
    if (info->tags.empty())
        return refuse(name, "it has no tags");
    info->end = offset;
    info->def.size = (offset + align - 1) / align * align;
    info->def.align = align;
    info->string_offsets.push_back(0);
    for (const StructInfo::Tag& tag : info->tags)
        if (tag.type == ZOK_T_STRING) {
            info->string_offsets.push_back(tag.offset);
            ++info->string_offsets[0];
        }
    if (auto it = s.structs.find(name); it != s.structs.end()) {
        if (same_layout(*it->second, *info))
            return it->second.get();
        return refuse(name, "a structure of that name exists with another layout");
    }
    StructInfo* out = info.get();
    out->def.name = out->name.c_str();
    out->def.parent = out->parent ? &out->parent->def : nullptr;
    out->def.host = out;
    s.structs.emplace(name, std::move(info));
    s.struct_by_def[&out->def] = out;
    zok_name* n = intern(name);
    n->structure = out;
    s.bound_names.push_back(n);
    invalidate_method_caches();
    return out;
}

} // namespace zok::detail

using namespace zok::detail;

extern "C" {

zok_struct_def* host_make_struct(const char* name, int32_t reserved, const zok_tag_entry* tags,
                                 int32_t flags) {
    if (reserved != 16 || flags != 2) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_WARN,
              format("host_make_struct: reserved arguments must be 16 and 2, not %d and %d",
                     reserved, flags) +
                  where() + ".");
        return nullptr;
    }
    StructInfo* info = define_struct(name, tags);
    return info ? &info->def : nullptr;
}

const void* host_struct_prepare(const char* name, int32_t reserved0, int32_t reserved1,
                                int32_t reserved2, int32_t action) {
    if (reserved0 != 0 || reserved1 != 0 || reserved2 != 1) {
        raise(ZOK_ERR_BAD_ARGUMENT, action,
              "host_struct_prepare: reserved arguments must be 0, 0, 1" + where() + ".");
        return nullptr;
    }
    StructInfo* info = name ? find_struct(name) : nullptr;
    if (!info) {
        raise(ZOK_ERR_UNKNOWN_CLASS, action,
              "host_struct_prepare: structure " + std::string(name ? name : "(null)") +
                  " is not defined" + where() + ".");
        return nullptr;
    }
    return info->string_offsets.data();
}

void* host_struct_tag_data(const zok_var* instance, const char* tag, int32_t reserved0,
                           int32_t reserved1, int32_t reserved2) {
    if (reserved0 != 0 || reserved1 != 0 || reserved2 != 0 || !tag) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "host_struct_tag_data: bad arguments" + where() + ".");
        return nullptr;
    }
    if (!instance || instance->type != ZOK_T_STRUCT || (instance->flags & ZOK_VF_ARRAY) ||
        !instance->value.st.data) {
        raise(ZOK_ERR_STRUCT, ZOK_ACTION_ERROR,
              "Expression must be a structure" + where() + ": got " +
                  (instance ? describe(*instance) : std::string("no variable")) + ".");
        return nullptr;
    }
    StructInfo* info = struct_info(instance->value.st.def);
    const StructInfo::Tag* t = info ? info->find_tag(tag) : nullptr;
    if (!t) {
        raise(ZOK_ERR_STRUCT, ZOK_ACTION_ERROR,
              "Tag name " + std::string(tag) + " is undefined for structure " +
                  (info ? info->name : std::string("(unknown)")) + where() + ".");
        return nullptr;
    }
    return static_cast<char*>(instance->value.st.data) + t->offset;
}

} // extern "C"
