// Save files: named program variables and every heap variable they reach,
// written to a file and read back into a running host.
//
// A file is a fixed header (magic, format version, checksum of the content,
// content length) and the content: the structures the values use, the table of
// saved heap variables (old identifier, kind, heap flags), the identifiers that
// saved values name but that were dead when the file was written, the heap
// values, and the program variables.  Numbers are little-endian; the layout is
// described in docs/save-format.md.
//
// Reading is all-or-nothing.  The whole file is read and its header, length
// and checksum are checked; the content is decoded into a plan that owns every
// value it made (and frees them if anything goes wrong); heap identifiers and
// program variable nodes are obtained; only then is the host changed, by steps
// that cannot fail.  Every saved identifier, dead ones included, gets a new
// identifier in the saved order, so that maps ordered by identifier stay
// ordered and a reference that named nothing still names nothing.
#include "state.hpp"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unordered_map>
#include <unordered_set>

namespace zok::detail {

static_assert(std::endian::native == std::endian::little, "save files are written as in memory");

namespace {

constexpr char kMagic[8] = {'Z', 'O', 'K', 'S', 'A', 'V', 'E', '\x1a'};
constexpr uint32_t kFormatVersion = 1;
constexpr size_t kHeaderSize = sizeof kMagic + 4 + 4 + 8;
constexpr uint32_t kNoInstance = 0xffffffffu; // a structure value without an instance

[[noreturn]] void file_error(const std::string& path, const std::string& what) {
    api_error(ZOK_ERR_SAVE_FILE, "Save file " + path + " " + what + "; nothing was restored.");
}

uint32_t crc_of(const unsigned char* data, size_t size) {
    return static_cast<uint32_t>(crc32_z(crc32_z(0, nullptr, 0), data, size));
}

// ---- Writing

class Writer {
public:
    template <typename T>
    void put(T v) {
        bytes(&v, sizeof v);
    }
    void bytes(const void* p, size_t n) { out_.append(static_cast<const char*>(p), n); }
    void text(std::string_view t) {
        put(static_cast<uint32_t>(t.size()));
        bytes(t.data(), t.size());
    }
    std::string& out() { return out_; }

private:
    std::string out_;
};

class Saver {
public:
    // Heap identifiers the values name, split by whether they are alive now.
    std::vector<uint32_t> saved, dead;
    std::vector<const StructInfo*> structs;
    Writer values;

    void value(const zok_var& v) {
        if ((v.flags & ZOK_VF_ARRAY) && !v.value.array) {
            values.put<uint8_t>(ZOK_T_UNDEFINED);
            values.put<uint8_t>(0);
            return;
        }
        values.put(v.type);
        values.put<uint8_t>((v.flags & ZOK_VF_ARRAY) ? 1 : 0);
        if (v.flags & ZOK_VF_ARRAY) {
            const zok_array& a = *v.value.array;
            const StructInfo* info = a.elem_type == ZOK_T_STRUCT ? struct_info(a.def) : nullptr;
            if (info)
                values.put(struct_index(info));
            values.put(a.count);
            const size_t size = info ? info->def.size : elem_size(a.elem_type);
            for (uint32_t i = 0; i < a.count; ++i)
                element(a.elem_type, static_cast<const char*>(a.data) + i * size, info);
        } else if (v.type == ZOK_T_STRUCT) {
            const StructInfo* info = v.value.st.data ? struct_info(v.value.st.def) : nullptr;
            values.put(info ? struct_index(info) : kNoInstance);
            if (info)
                instance(*info, static_cast<const char*>(v.value.st.data));
        } else if (v.type != ZOK_T_UNDEFINED) {
            element(v.type, &v.value, nullptr);
        }
    }

    // Notes an identifier a value names; a live one not met before is queued
    // (in `saved`) for its own value to be walked.
    void reference(uint32_t id) {
        if (id == 0)
            return;
        if (!heap_slot(id))
            dead.push_back(id);
        else if (met_.insert(id).second)
            saved.push_back(id);
    }

private:
    void element(uint8_t type, const void* at, const StructInfo* info) {
        if (type == ZOK_T_STRING) {
            zok_string str;
            std::memcpy(&str, at, sizeof str);
            values.text(std::string_view(str.length ? str.text : "", str.length));
        } else if (type == ZOK_T_STRUCT) {
            instance(*info, static_cast<const char*>(at));
        } else {
            values.bytes(at, elem_size(type));
        }
    }
    void instance(const StructInfo& info, const char* data) {
        for (const StructInfo::Tag& tag : info.tags)
            element(tag.type, data + tag.offset, nullptr);
    }
    uint32_t struct_index(const StructInfo* info) {
        auto [it, added] = index_.try_emplace(info, static_cast<uint32_t>(structs.size()));
        if (added)
            structs.push_back(info);
        return it->second;
    }
    std::unordered_map<const StructInfo*, uint32_t> index_;
    std::unordered_set<uint32_t> met_;
};

void sort_unique(std::vector<uint32_t>& ids) {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
}

// ---- Reading

// The content of a file, read with every length checked before it is used.
class Reader {
public:
    Reader(const std::string& path, const unsigned char* p, size_t size)
        : path_(path), p_(p), end_(p + size) {}

    [[noreturn]] void corrupt(const std::string& what) const {
        file_error(path_, "is corrupt: " + what);
    }
    void need(uint64_t n, const char* what) const {
        if (n > static_cast<uint64_t>(end_ - p_))
            corrupt(std::string(what) + " runs past the end of the content");
    }
    template <typename T>
    T take(const char* what) {
        need(sizeof(T), what);
        T v;
        std::memcpy(&v, p_, sizeof v);
        p_ += sizeof v;
        return v;
    }
    const unsigned char* bytes(size_t n, const char* what) {
        need(n, what);
        const unsigned char* at = p_;
        p_ += n;
        return at;
    }
    std::string_view text(const char* what) {
        const auto n = take<uint32_t>(what);
        return {reinterpret_cast<const char*>(bytes(n, what)), n};
    }
    // A count of items of at least `min_size` bytes each, checked against what is left.
    uint32_t count(size_t min_size, const char* what) {
        const auto n = take<uint32_t>(what);
        need(uint64_t{n} * min_size, what);
        return n;
    }
    bool done() const { return p_ == end_; }

private:
    const std::string& path_;
    const unsigned char* p_;
    const unsigned char* end_;
};

// Everything a file restores, made and owned before the host changes.
struct Plan {
    struct HeapEntry {
        uint32_t old_id;
        uint8_t kind;
        uint32_t flags;
        zok_var value;
    };
    std::vector<const StructInfo*> structs;
    std::vector<HeapEntry> heap; // by old identifier, ascending
    std::vector<uint32_t> dead;  // old identifiers of no saved variable, ascending
    std::vector<std::pair<std::string, zok_var>> vars;
    uint64_t base = 0; // the new identifier of the least old one

    Plan() = default;
    Plan(const Plan&) = delete;
    Plan& operator=(const Plan&) = delete;
    ~Plan() {
        for (HeapEntry& e : heap)
            free_value(e.value);
        for (auto& [name, v] : vars)
            free_value(v);
    }

    std::vector<HeapEntry>::const_iterator first_saved_from(uint32_t old_id) const {
        return std::lower_bound(heap.begin(), heap.end(), old_id,
                                [](const HeapEntry& e, uint32_t id) { return e.old_id < id; });
    }
    bool saved(uint32_t old_id) const {
        auto h = first_saved_from(old_id);
        return h != heap.end() && h->old_id == old_id;
    }
    // The new identifier for an old one: its rank among every old identifier.
    uint32_t translate(uint32_t old_id, Reader& r) const {
        if (old_id == 0)
            return 0;
        auto h = first_saved_from(old_id);
        auto d = std::lower_bound(dead.begin(), dead.end(), old_id);
        const bool known =
            (h != heap.end() && h->old_id == old_id) || (d != dead.end() && *d == old_id);
        if (!known)
            r.corrupt(
                format("a value names heap variable %u, which the file does not list", old_id));
        return static_cast<uint32_t>(base + (h - heap.begin()) + (d - dead.begin()));
    }
};

class Decoder {
public:
    Decoder(Reader& r, Plan& plan) : r_(r), plan_(plan) {}

    // Fills `out` (undefined) with the next value; on an error `out` holds
    // what was made so far, for its owner to free.
    void value(zok_var& out) {
        const auto type = r_.take<uint8_t>("a value's type");
        const auto shape = r_.take<uint8_t>("a value's shape");
        if (!is_valid_type(type) || shape > 1 || (shape == 1 && type == ZOK_T_UNDEFINED))
            r_.corrupt(format("a value has type %u and shape %u", type, shape));
        if (shape == 1) {
            const StructInfo* info = type == ZOK_T_STRUCT ? structure() : nullptr;
            const size_t size = info ? info->def.size : elem_size(type);
            const uint32_t count = r_.count(min_bytes(type, info), "an array");
            out.value.array =
                new_array(type, count, info ? const_cast<zok_struct_def*>(&info->def) : nullptr);
            out.type = type;
            out.flags = static_cast<uint8_t>(ZOK_VF_ARRAY | (info ? ZOK_VF_STRUCT : 0));
            for (uint32_t i = 0; i < count; ++i)
                element(type, static_cast<char*>(out.value.array->data) + i * size, info);
        } else if (type == ZOK_T_STRUCT) {
            out.type = type;
            out.flags = ZOK_VF_STRUCT;
            const StructInfo* info = structure();
            if (!info)
                return;
            out.value.st = {new_instance(*info), const_cast<zok_struct_def*>(&info->def)};
            instance(*info, static_cast<char*>(out.value.st.data));
        } else {
            out.type = type;
            if (type != ZOK_T_UNDEFINED)
                element(type, &out.value, nullptr);
        }
    }

private:
    const StructInfo* structure() {
        const auto index = r_.take<uint32_t>("a structure index");
        if (index == kNoInstance)
            return nullptr;
        if (index >= plan_.structs.size())
            r_.corrupt(format("a value uses structure %u of %zu", index, plan_.structs.size()));
        return plan_.structs[index];
    }
    static size_t min_bytes(uint8_t type, const StructInfo* info) {
        if (type == ZOK_T_STRING)
            return 4;
        if (info) {
            size_t n = 0;
            for (const StructInfo::Tag& tag : info->tags)
                n += min_bytes(tag.type, nullptr);
            return n;
        }
        return elem_size(type);
    }
    // Writes one element into storage that holds nothing yet (zeroed).
    void element(uint8_t type, void* at, const StructInfo* info) {
        switch (type) {
        case ZOK_T_STRING: {
            const zok_string str = make_string(r_.text("a text"));
            std::memcpy(at, &str, sizeof str);
            return;
        }
        case ZOK_T_STRUCT:
            return instance(*info, static_cast<char*>(at));
        case ZOK_T_POINTER:
        case ZOK_T_OBJECT: {
            const uint32_t id = plan_.translate(r_.take<uint32_t>("a reference"), r_);
            std::memcpy(at, &id, sizeof id);
            return;
        }
        default:
            std::memcpy(at, r_.bytes(elem_size(type), "a number"), elem_size(type));
        }
    }
    void instance(const StructInfo& info, char* data) {
        for (const StructInfo::Tag& tag : info.tags)
            element(tag.type, data + tag.offset, nullptr);
    }

    Reader& r_;
    Plan& plan_;
};

std::string layout_text(std::string_view parent, const std::vector<TagSpec>& tags) {
    std::string out =
        parent.empty() ? "no parent; tags" : "parent " + std::string(parent) + "; tags";
    for (const TagSpec& t : tags)
        out += format(" %s:%s", t.name.c_str(), type_name(t.type));
    return out;
}

std::vector<TagSpec> tags_of(const StructInfo& info) {
    std::vector<TagSpec> out;
    for (const StructInfo::Tag& t : info.tags)
        out.push_back({t.name, t.type});
    return out;
}

// Matches the file's structures with this host's, by name and layout.
void read_structures(Reader& r, const std::string& path, Plan& plan) {
    const uint32_t count = r.count(12, "the structure table");
    for (uint32_t i = 0; i < count; ++i) {
        const std::string name(r.text("a structure name"));
        const std::string parent(r.text("a structure's parent"));
        std::vector<TagSpec> tags(r.count(5, "a structure's tags"));
        for (TagSpec& t : tags) {
            t.name = r.text("a tag name");
            t.type = r.take<uint8_t>("a tag type");
        }
        const StructInfo* info = find_struct(name);
        if (!info)
            api_error(ZOK_ERR_UNKNOWN_CLASS, "Save file " + path + " holds objects of class " +
                                                 name +
                                                 ", which this host does not define; "
                                                 "nothing was restored.");
        const std::string saved = layout_text(parent, tags);
        const std::string here =
            layout_text(info->parent ? info->parent->name : "", tags_of(*info));
        if (saved != here)
            api_error(ZOK_ERR_STRUCT, "Save file " + path + " holds class " + name +
                                          " with another layout (saved: " + saved +
                                          "; here: " + here + "); nothing was restored.");
        plan.structs.push_back(info);
    }
}

// Whether identifiers are distinct, nonzero and ascending.
template <typename Range, typename Id>
bool ascending(const Range& list, Id id_of) {
    uint32_t prev = 0;
    for (const auto& item : list) {
        if (id_of(item) <= prev)
            return false;
        prev = id_of(item);
    }
    return true;
}

void decode(Reader& r, const std::string& path, Plan& plan) {
    read_structures(r, path, plan);
    plan.heap.resize(r.count(9, "the heap table"));
    for (Plan::HeapEntry& e : plan.heap) {
        e.old_id = r.take<uint32_t>("a heap identifier");
        e.kind = r.take<uint8_t>("a heap kind");
        e.flags = r.take<uint32_t>("heap flags");
        e.value = zok_var{};
        if (e.kind != ZOK_HEAP_POINTER && e.kind != ZOK_HEAP_OBJECT)
            r.corrupt(format("heap variable %u has kind %u", e.old_id, e.kind));
    }
    if (!ascending(plan.heap, [](const Plan::HeapEntry& e) { return e.old_id; }))
        r.corrupt("the heap table is not an ascending list of identifiers");
    plan.dead.resize(r.count(4, "the dead identifiers"));
    for (uint32_t& id : plan.dead)
        id = r.take<uint32_t>("a dead identifier");
    if (!ascending(plan.dead, [](uint32_t id) { return id; }))
        r.corrupt("the dead identifiers are not an ascending list");
    for (uint32_t id : plan.dead)
        if (plan.saved(id))
            r.corrupt(format("heap variable %u is listed as saved and as dead", id));
    const uint64_t total = plan.heap.size() + plan.dead.size();
    State& s = state();
    if (total > (uint64_t{1} << 32) - s.heap.next_id())
        file_error(path, format("needs %llu heap identifiers, more than this host has left",
                                static_cast<unsigned long long>(total)));
    plan.base = s.heap.next_id();

    Decoder decoder(r, plan);
    for (Plan::HeapEntry& e : plan.heap) {
        decoder.value(e.value);
        if (e.kind == ZOK_HEAP_OBJECT && (e.value.type != ZOK_T_STRUCT ||
                                          (e.value.flags & ZOK_VF_ARRAY) || !e.value.value.st.data))
            r.corrupt(format("object heap variable %u holds no structure instance", e.old_id));
    }
    plan.vars.resize(r.count(6, "the program variables"));
    for (auto& [name, v] : plan.vars) {
        v = zok_var{};
        name = r.text("a variable name");
        // The program reaches its variables by upper-case name only.
        if (!is_upper(name))
            r.corrupt("variable name " + name + " is not in upper case");
        decoder.value(v);
    }
    for (size_t i = 0; i < plan.vars.size(); ++i)
        for (size_t k = 0; k < i; ++k)
            if (plan.vars[k].first == plan.vars[i].first)
                r.corrupt("variable " + plan.vars[i].first + " appears twice");
    if (!r.done())
        r.corrupt("bytes follow the last variable");
}

} // namespace

} // namespace zok::detail

namespace zok {

using namespace detail;

void Host::save(const std::string& path, const std::vector<std::string>& variables) const {
    State& s = *state_;
    std::vector<std::pair<std::string, const zok_var*>> roots;
    for (const std::string& given : variables) {
        std::string name = upper(given);
        auto it = s.vars.find(name);
        if (it == s.vars.end())
            api_error(ZOK_ERR_BAD_ARGUMENT,
                      "Variable " + name + " is not defined; " + path + " was not written.");
        roots.emplace_back(std::move(name), &it->second);
    }

    Saver saver;
    for (const auto& [name, var] : roots)
        for_each_reference(*var, [&](uint32_t id) { saver.reference(id); });
    for (size_t next = 0; next < saver.saved.size(); ++next)
        for_each_reference(heap_slot(saver.saved[next])->rec.var,
                           [&](uint32_t id) { saver.reference(id); });
    sort_unique(saver.saved);
    sort_unique(saver.dead);

    Writer table;
    table.put(static_cast<uint32_t>(saver.saved.size()));
    for (uint32_t id : saver.saved) {
        const HeapSlot* slot = heap_slot(id);
        table.put(id);
        table.put(slot->kind);
        table.put(slot->rec.flags);
        saver.value(slot->rec.var);
    }
    table.put(static_cast<uint32_t>(saver.dead.size()));
    for (uint32_t id : saver.dead)
        table.put(id);
    saver.values.put(static_cast<uint32_t>(roots.size()));
    for (const auto& [name, var] : roots) {
        saver.values.text(name);
        saver.value(*var);
    }

    Writer content; // the structures are known only once every value is written
    content.put(static_cast<uint32_t>(saver.structs.size()));
    for (const StructInfo* info : saver.structs) {
        content.text(info->name);
        content.text(info->parent ? info->parent->name : "");
        content.put(static_cast<uint32_t>(info->tags.size()));
        for (const StructInfo::Tag& tag : info->tags) {
            content.text(tag.name);
            content.put(tag.type);
        }
    }
    content.out() += table.out();
    content.out() += saver.values.out();

    const std::string& body = content.out();
    Writer header;
    header.bytes(kMagic, sizeof kMagic);
    header.put(kFormatVersion);
    header.put(crc_of(reinterpret_cast<const unsigned char*>(body.data()), body.size()));
    header.put(static_cast<uint64_t>(body.size()));

    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(header.out().data(), static_cast<std::streamsize>(header.out().size()));
    file.write(body.data(), static_cast<std::streamsize>(body.size()));
    file.close();
    if (!file)
        api_error(ZOK_ERR_SAVE_FILE,
                  "Save file " + path + " cannot be written: " + std::strerror(errno) + ".");
}

std::vector<std::string> Host::restore(const std::string& path) {
    State& s = *state_;
    std::vector<unsigned char> file;
    {
        std::ifstream in(path, std::ios::binary);
        std::error_code error;
        const uintmax_t size = std::filesystem::file_size(path, error);
        if (!in || error)
            file_error(path, "cannot be opened: " +
                                 (error ? error.message() : std::string(std::strerror(errno))));
        try {
            file.resize(size);
        } catch (const std::exception&) {
            file_error(path,
                       format("cannot be read: %ju bytes are more than this host can hold", size));
        }
        if (!in.read(reinterpret_cast<char*>(file.data()), static_cast<std::streamsize>(size)))
            file_error(path, "cannot be read");
    }
    if (file.size() < kHeaderSize)
        file_error(path, format("is truncated: %zu bytes, less than its %zu-byte header",
                                file.size(), kHeaderSize));
    if (std::memcmp(file.data(), kMagic, sizeof kMagic) != 0)
        file_error(path, "is not a save file: its magic number is wrong");
    uint32_t version, crc;
    uint64_t length;
    std::memcpy(&version, file.data() + 8, 4);
    std::memcpy(&crc, file.data() + 12, 4);
    std::memcpy(&length, file.data() + 16, 8);
    if (version != kFormatVersion)
        file_error(path, format("has format version %u; this host reads version %u", version,
                                kFormatVersion));
    const uint64_t have = file.size() - kHeaderSize;
    if (have < length)
        file_error(path,
                   format("is truncated: its header states %llu content bytes, %llu are there",
                          static_cast<unsigned long long>(length),
                          static_cast<unsigned long long>(have)));
    if (have > length)
        file_error(path,
                   format("has trailing bytes: %llu after the %llu content bytes its header states",
                          static_cast<unsigned long long>(have - length),
                          static_cast<unsigned long long>(length)));
    const unsigned char* body = file.data() + kHeaderSize;
    if (crc_of(body, length) != crc)
        file_error(path, "is corrupt: its checksum does not match its content");

    try {
        Plan plan;
        Reader reader(path, body, length);
        decode(reader, path, plan);

        // Obtain everything the commit needs.
        for (size_t i = 0; i < plan.heap.size(); ++i)
            if (inject_fault(kHeapLabel))
                throw std::bad_alloc();
        if (!s.heap.reserve(plan.heap.size() + plan.dead.size()))
            throw std::bad_alloc();
        std::map<std::string, zok_var, std::less<>> fresh; // nodes for new program variables
        std::vector<std::string> names;
        names.reserve(plan.vars.size());
        for (const auto& [name, v] : plan.vars) {
            names.push_back(name);
            if (!s.vars.count(name))
                fresh.try_emplace(name);
        }

        // Commit: nothing below allocates or fails.
        auto dead = plan.dead.begin();
        for (Plan::HeapEntry& e : plan.heap) {
            for (; dead != plan.dead.end() && *dead < e.old_id; ++dead)
                s.heap.set_next_id(s.heap.next_id() + 1);
            HeapSlot* slot = s.heap.create();
            slot->kind = e.kind;
            slot->rec.flags = e.flags;
            slot->rec.var = std::exchange(e.value, zok_var{});
        }
        s.heap.set_next_id(plan.base + plan.heap.size() + plan.dead.size());
        for (auto& [name, v] : plan.vars) {
            auto it = s.vars.find(name);
            if (it == s.vars.end())
                it = s.vars.insert(fresh.extract(name)).position;
            else
                free_value(it->second);
            it->second = std::exchange(v, zok_var{});
        }
        return names;
    } catch (const std::bad_alloc&) {
        api_error(ZOK_ERR_NO_MEMORY,
                  "Unable to allocate memory to restore " + path + "; nothing was restored.");
    }
}

} // namespace zok
