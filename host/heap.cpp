// The heap: identifiers, records, the heap operations and the collection of
// unreachable heap variables.
//
// Invariants: identifiers are handed out in increasing order from 1 and never
// again; dir_[id >> kPageBits] is a page exactly while an identifier of that
// page is live or the page is still being filled; a page's `live` counts its
// live slots; `count_` is the sum of them; `pages_` lists the allocated pages
// in ascending order.  A record's address does not change while it lives.
#include "state.hpp"

#include <sys/mman.h>

#if defined(ZOK_HOST_ASAN)
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace zok::detail {

namespace {

constexpr size_t kDirEntries = size_t{1} << (32 - HeapTable::kPageBits);
constexpr size_t kDirBytes = kDirEntries * sizeof(void*);
constexpr uint64_t kIdLimit = uint64_t{1} << 32;

// A dead slot's record is poisoned in a sanitizer build, so a module that
// keeps a record pointer past its heap variable's end is caught.
void poison_record(HeapSlot* s) {
    poison(&s->rec, sizeof s->rec);
}

void unpoison_record(HeapSlot* s) {
    unpoison(&s->rec, sizeof s->rec);
}

} // namespace

HeapTable::HeapTable() {
    // Mapped straight from the system, the directory's pages are zero and cost
    // nothing until touched, whatever allocator (or sanitizer) is in use.
    void* dir = mmap(nullptr, kDirBytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (dir == MAP_FAILED)
        throw std::bad_alloc();
    dir_ = static_cast<Page**>(dir);
#if defined(ZOK_HOST_ASAN)
    // The leak checker scans heap blocks, not mappings: live pages are reached from here.
    __lsan_register_root_region(dir_, kDirBytes);
#endif
}

HeapTable::~HeapTable() {
    for (uint32_t pi : pages_)
        free_page(dir_[pi]);
    for (Page* page : spares_)
        free_page(page);
#if defined(ZOK_HOST_ASAN)
    __lsan_unregister_root_region(dir_, kDirBytes);
#endif
    munmap(dir_, kDirBytes);
}

// Mapped from the system, a page is zero (every slot dead) with no clearing
// pass; its dead records are poisoned.  The leak checker does not scan
// mappings, so a page is a root while it exists: the values of its records
// hold the heap's arrays and texts.
HeapTable::Page* HeapTable::new_page() {
    void* mem =
        mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED)
        return nullptr;
    auto* page = static_cast<Page*>(mem);
#if defined(ZOK_HOST_ASAN)
    __lsan_register_root_region(page, sizeof(Page));
#endif
    for (HeapSlot& s : page->slots)
        poison_record(&s);
    return page;
}

void HeapTable::free_page(Page* page) {
    unpoison(page, sizeof(Page));
#if defined(ZOK_HOST_ASAN)
    __lsan_unregister_root_region(page, sizeof(Page));
#endif
    munmap(page, sizeof(Page));
}

HeapSlot* HeapTable::create() {
    if (next_id_ >= kIdLimit)
        return nullptr;
    auto id = static_cast<uint32_t>(next_id_);
    uint32_t pi = id >> kPageBits;
    // The previous page is complete once this, its successor's first
    // identifier, is handed out: given back first, it can serve as this page.
    if ((id & (kPageSize - 1)) == 0 && pi > 0)
        drop_page_if_done(pi - 1);
    Page* page = dir_[pi];
    if (!page) {
        try {
            pages_.push_back(pi); // identifiers only grow: the list stays sorted
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        if (!spares_.empty()) {
            page = spares_.back();
            spares_.pop_back();
        } else if (!(page = new_page())) {
            pages_.pop_back();
            return nullptr;
        }
        dir_[pi] = page;
    }
    HeapSlot* slot = &page->slots[id & (kPageSize - 1)];
    unpoison_record(slot);
    *slot = HeapSlot{};
    slot->rec.id = id;
    slot->live = true;
    ++page->live;
    ++count_;
    ++next_id_;
    return slot;
}

void HeapTable::destroy(HeapSlot* slot) {
    uint32_t id = slot->rec.id;
    uint32_t pi = id >> kPageBits;
    slot->live = false;
    poison_record(slot);
    --count_;
    if (--dir_[pi]->live == 0)
        drop_page_if_done(pi);
}

// A page whose identifiers have all been handed out and freed is given back.
void HeapTable::drop_page_if_done(uint32_t pi) {
    Page* page = pi < kDirEntries ? dir_[pi] : nullptr;
    if (!page || page->live != 0 || (uint64_t{pi} + 1) << kPageBits > next_id_)
        return;
    dir_[pi] = nullptr;
    try {
        spares_.push_back(page); // kept, so that later identifiers touch no new memory
    } catch (const std::bad_alloc&) {
        free_page(page);
    }
    pages_.erase(std::lower_bound(pages_.begin(), pages_.end(), pi));
}

bool HeapTable::reserve(uint64_t count) {
    if (count > kIdLimit - next_id_)
        return false;
    if (count == 0)
        return true;
    size_t needed = 0;
    for (uint64_t pi = next_id_ >> kPageBits; pi <= (next_id_ + count - 1) >> kPageBits; ++pi)
        needed += dir_[pi] ? 0 : 1;
    try {
        pages_.reserve(pages_.size() + needed);
        spares_.reserve(needed);
    } catch (const std::bad_alloc&) {
        return false;
    }
    while (spares_.size() < needed) {
        Page* page = new_page();
        if (!page)
            return false; // the pages made so far stay spares for later identifiers
        spares_.push_back(page);
    }
    return true;
}

void HeapTable::set_next_id(uint64_t next) {
    if (next <= next_id_)
        return;
    uint64_t old_page = next_id_ >> kPageBits;
    next_id_ = std::min(next, kIdLimit);
    if (old_page < kDirEntries)
        drop_page_if_done(static_cast<uint32_t>(old_page));
}

void HeapTable::check() const {
    size_t total = 0;
    uint32_t prev = 0;
    for (size_t k = 0; k < pages_.size(); ++k) {
        uint32_t pi = pages_[k];
        if (k > 0 && pi <= prev)
            throw std::logic_error("heap: page list not ascending");
        prev = pi;
        const Page* page = dir_[pi];
        if (!page)
            throw std::logic_error("heap: listed page missing from the directory");
        uint32_t live = 0;
        for (uint32_t i = 0; i < kPageSize; ++i) {
            const HeapSlot* s = &page->slots[i];
            if (!s->live)
                continue;
            ++live;
            uint64_t id = (uint64_t{pi} << kPageBits) | i;
            if (s->rec.id != id)
                throw std::logic_error("heap: record holds the wrong identifier");
            if (id >= next_id_ || id == 0)
                throw std::logic_error("heap: identifier not yet handed out is live");
            if (s->kind != ZOK_HEAP_POINTER && s->kind != ZOK_HEAP_OBJECT)
                throw std::logic_error("heap: record of unknown kind");
            if (s->kind == ZOK_HEAP_OBJECT &&
                (s->rec.var.type != ZOK_T_STRUCT || (s->rec.var.flags & ZOK_VF_ARRAY)))
                throw std::logic_error("heap: object record without a scalar structure");
        }
        if (live != page->live)
            throw std::logic_error("heap: page live count is wrong");
        total += live;
    }
    if (total != count_)
        throw std::logic_error("heap: live count is wrong");
}

void heap_free_slot(HeapSlot* slot) {
    State& s = state();
    zok_var value = slot->rec.var;
    s.heap.destroy(slot);
    free_value(value);
}

void free_whole_heap(State& s) {
    std::vector<HeapSlot*> all;
    all.reserve(s.heap.count());
    s.heap.for_each([&](HeapSlot* slot) { all.push_back(slot); });
    for (HeapSlot* slot : all) {
        try {
            heap_free_slot(slot);
        } catch (const Error&) {
            // Recorded; the rest of the heap still goes.
        }
    }
}

namespace {

[[gnu::noinline, gnu::cold]] zok_heap_record* no_heap_var(uint32_t id, int32_t action, int32_t code,
                                                          const char* what) {
    raise(code, action,
          format("Invalid %s: no live heap variable has identifier %u", what, id) + where() + ".");
    return nullptr;
}

// The look-up itself stays free of the raise's frame: it runs under every call.
inline zok_heap_record* lookup_or_raise(uint32_t id, int32_t action, int32_t code,
                                        const char* what) {
    if (HeapSlot* slot = heap_slot(id)) [[likely]]
        return &slot->rec;
    return no_heap_var(id, action, code, what);
}

} // namespace

size_t collect_garbage(State& s) {
    std::vector<uint32_t> work;
    auto reach = [&](uint32_t id) {
        if (HeapSlot* slot = s.heap.find(id); slot && !slot->mark) {
            slot->mark = true;
            work.push_back(id);
        }
    };
    s.heap.for_each([&](HeapSlot* slot) {
        slot->mark = false;
        if (slot->rec.flags & ZOK_HEAP_HELD) {
            slot->mark = true;
            work.push_back(slot->rec.id);
        }
    });
    for (const auto& [name, var] : s.vars)
        for_each_reference(var, reach);
    for (TempSlot* t = s.temp_tail; t; t = t->prev)
        for_each_reference(t->var, reach);
    while (!work.empty()) {
        uint32_t id = work.back();
        work.pop_back();
        for_each_reference(s.heap.find(id)->rec.var, reach);
    }
    std::vector<HeapSlot*> dead;
    s.heap.for_each([&](HeapSlot* slot) {
        if (!slot->mark)
            dead.push_back(slot);
    });
    for (HeapSlot* slot : dead)
        heap_free_slot(slot);
    return dead.size();
}

} // namespace zok::detail

using namespace zok::detail;

extern "C" {

zok_heap_record* host_object_heap_var(uint32_t id, int32_t action) {
    // Either kind: a module also resolves pointer heap variables it owns this way.
    return lookup_or_raise(id, action, ZOK_ERR_INVALID_OBJECT, "object reference");
}

zok_heap_record* host_heap_var(uint32_t id) {
    HeapSlot* slot = heap_slot(id);
    return slot ? &slot->rec : nullptr;
}

zok_heap_record* host_heap_var_new(int32_t kind, zok_var* value, int32_t mode, int32_t action) {
    State& s = state();
    auto refuse = [&](int32_t code, const std::string& why) -> zok_heap_record* {
        raise(code, action, "host_heap_var_new: " + why + where() + ".");
        return nullptr;
    };
    if (kind != ZOK_HEAP_POINTER && kind != ZOK_HEAP_OBJECT)
        return refuse(ZOK_ERR_BAD_ARGUMENT, format("kind %d is neither pointer nor object", kind));
    if (mode != ZOK_HEAP_NEW_COPY && mode != ZOK_HEAP_NEW_MOVE)
        return refuse(ZOK_ERR_BAD_ARGUMENT, format("mode %d is neither copy nor move", mode));
    if (!value)
        return refuse(ZOK_ERR_BAD_ARGUMENT, "null value");
    if (kind == ZOK_HEAP_OBJECT &&
        (value->type != ZOK_T_STRUCT || (value->flags & ZOK_VF_ARRAY) || !value->value.st.data))
        return refuse(ZOK_ERR_NOT_OBJECT,
                      "an object needs a scalar structure value, not " + describe(*value));
    if (inject_fault(kHeapLabel))
        return refuse(ZOK_ERR_NO_MEMORY, "unable to allocate a heap variable");
    zok_var held{};
    if (mode == ZOK_HEAP_NEW_COPY) {
        try {
            copy_value(*value, held);
        } catch (const std::bad_alloc&) {
            return refuse(ZOK_ERR_NO_MEMORY, "unable to allocate a heap variable");
        }
    }
    HeapSlot* slot = s.heap.create();
    if (!slot) {
        free_value(held);
        return refuse(ZOK_ERR_NO_MEMORY, "unable to allocate a heap variable");
    }
    slot->kind = static_cast<uint8_t>(kind);
    if (mode == ZOK_HEAP_NEW_MOVE) {
        held.type = value->type;
        held.flags = value->flags & (ZOK_VF_ARRAY | ZOK_VF_STRUCT);
        held.value = value->value;
        value->type = ZOK_T_UNDEFINED;
        value->flags &= static_cast<uint8_t>(~(ZOK_VF_ARRAY | ZOK_VF_STRUCT));
        std::memset(&value->value, 0, sizeof value->value);
    }
    slot->rec.var = held;
    return &slot->rec;
}

void host_heap_free(uint32_t id, int32_t reserved0, int32_t reserved1) {
    if (reserved0 != 0 || reserved1 != 0) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "host_heap_free: reserved arguments must be 0" + where() + ".");
        return;
    }
    if (zok_heap_record* rec =
            lookup_or_raise(id, ZOK_ACTION_ERROR, ZOK_ERR_INVALID_POINTER, "pointer"))
        heap_free_slot(reinterpret_cast<HeapSlot*>(rec));
}

} // extern "C"
