// The reference host's heap and structures: look-up near the top of the
// identifier space (random churn is in test_host_memory), the copy and move
// modes, the collection of unreachable heap variables, and structure layout,
// registry and tag look-up.
#include "host.hpp"
#include "support/testing.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

uint32_t new_long(int32_t v) {
    zok_var value{};
    value.type = ZOK_T_LONG;
    value.value.long_val = v;
    return host_heap_var_new(ZOK_HEAP_POINTER, &value, ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR)->id;
}

TEST(HostHeap, LookUpWorksAcrossTheWholeIdentifierSpace) {
    zok::Host host;
    uint32_t low = new_long(1);
    host.set_next_heap_id(0x7fffffffu);
    uint32_t mid = new_long(2);
    uint32_t above = new_long(3);
    host.set_next_heap_id(0xfffffffeu);
    uint32_t top1 = new_long(4);
    uint32_t top2 = new_long(5);
    EXPECT_EQ(mid, 0x7fffffffu);
    EXPECT_EQ(above, 0x80000000u);
    EXPECT_EQ(top1, 0xfffffffeu);
    EXPECT_EQ(top2, 0xffffffffu);
    int32_t expected = 1;
    for (uint32_t id : {low, mid, above, top1, top2})
        EXPECT_EQ(host_heap_var(id)->var.value.long_val, expected++);
    EXPECT_EQ(host_heap_var(0), nullptr);
    EXPECT_EQ(host_heap_var(0x7ffffffeu), nullptr);
    // The identifiers are used up: no identifier is ever handed out twice.
    zok_var v{};
    v.type = ZOK_T_LONG;
    host.clear_messages();
    EXPECT_EQ(host_heap_var_new(ZOK_HEAP_POINTER, &v, ZOK_HEAP_NEW_COPY, ZOK_ACTION_RETURN),
              nullptr);
    EXPECT_TRUE(host.messages().empty()); // the quiet action records nothing
    EXPECT_EQ(host_heap_var_new(ZOK_HEAP_POINTER, &v, ZOK_HEAP_NEW_COPY, ZOK_ACTION_WARN), nullptr);
    EXPECT_EQ(host.messages().back().code, ZOK_ERR_NO_MEMORY);
    EXPECT_EQ(host.messages().back().action, ZOK_ACTION_WARN);
    host_heap_free(top2, 0, 0);
    EXPECT_EQ(host_heap_var(top2), nullptr);
    EXPECT_EQ(host.heap_ids(), (std::vector<uint32_t>{low, mid, above, top1}));
    EXPECT_NO_THROW(host.check_heap());
}

TEST(HostHeap, CopyAndMoveModesAndBadRequests) {
    zok::Host host;
    zok_var* text = host.make_temp("payload");
    zok_heap_record* copy = host_heap_var_new(ZOK_HEAP_POINTER, text, ZOK_HEAP_NEW_COPY, 2);
    EXPECT_EQ(host.live_texts(), 2u);
    EXPECT_EQ(host.read(*text).as_string(), "payload");
    EXPECT_EQ(copy->var.flags & ZOK_VF_TEMPORARY, 0);

    zok_heap_record* moved = host_heap_var_new(ZOK_HEAP_POINTER, text, ZOK_HEAP_NEW_MOVE, 2);
    EXPECT_EQ(host.live_texts(), 2u);
    EXPECT_EQ(text->type, ZOK_T_UNDEFINED);
    EXPECT_TRUE(text->flags & ZOK_VF_TEMPORARY); // still the caller's to release
    host_release_temp(text);
    EXPECT_EQ(host.heap_value(moved->id).as_string(), "payload");

    // An object needs a scalar structure; a refused request makes nothing.
    zok_var number{};
    number.type = ZOK_T_LONG;
    size_t before = host.heap_count();
    expect_error(ZOK_ERR_NOT_OBJECT, [&] { host_heap_var_new(ZOK_HEAP_OBJECT, &number, 2, 2); });
    EXPECT_EQ(host_heap_var_new(ZOK_HEAP_OBJECT, &number, 2, ZOK_ACTION_RETURN), nullptr);
    EXPECT_EQ(host.heap_count(), before);

    uint32_t id = moved->id;
    host_heap_free(id, 0, 0);
    expect_error(ZOK_ERR_INVALID_POINTER, [&] { host_heap_free(id, 0, 0); });
    host.clear_messages();
    EXPECT_EQ(host_object_heap_var(id, ZOK_ACTION_RETURN), nullptr);
    EXPECT_TRUE(host.messages().empty());
    EXPECT_EQ(host_object_heap_var(id, ZOK_ACTION_WARN), nullptr);
    EXPECT_EQ(host.messages().back().code, ZOK_ERR_INVALID_OBJECT);
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { host_object_heap_var(id, ZOK_ACTION_ERROR); });
    host_heap_free(copy->id, 0, 0);
    EXPECT_EQ(host.live_texts(), 0u);
}

// Roots are the program's variables, live temporaries and held heap
// variables; edges are pointers, object references and structure fields
// (arrays of them included).  Everything else goes, cycles too.
TEST(HostCollect, KeepsWhatRootsReachAndFreesTheRest) {
    zok::Host host;
    zok_struct_def* def = host.define_struct(
        "LINK", {{"NEXT", ZOK_T_POINTER}, {"OBJ", ZOK_T_OBJECT}, {"NAME", ZOK_T_STRING}});
    auto make = [&](uint32_t next, uint32_t obj, const char* name) {
        zok_var* t = host_temp_struct(def);
        auto* data = static_cast<char*>(host_struct_tag_data(t, "NEXT", 0, 0, 0));
        std::memcpy(data, &next, 4);
        std::memcpy(host_struct_tag_data(t, "OBJ", 0, 0, 0), &obj, 4);
        host_string_store(static_cast<zok_string*>(host_struct_tag_data(t, "NAME", 0, 0, 0)), name);
        uint32_t id = host_heap_var_new(ZOK_HEAP_OBJECT, t, ZOK_HEAP_NEW_MOVE, 2)->id;
        host_release_temp(t);
        return id;
    };
    uint32_t leaf = new_long(1);
    uint32_t in_array = new_long(2);
    uint32_t array =
        host_heap_var_new(
            ZOK_HEAP_POINTER,
            host.make_temp(zok::Value::array(ZOK_T_POINTER, {zok::PointerRef{in_array}})),
            ZOK_HEAP_NEW_MOVE, 2)
            ->id;
    uint32_t b = make(array, leaf, "b");
    uint32_t a = make(b, 0, "a");
    uint32_t held = make(a, 0, "held");
    host_heap_var(held)->flags |= ZOK_HEAP_HELD;

    uint32_t from_var = new_long(3);
    host.set_var("X",
                 zok::Value::array(ZOK_T_OBJECT, {zok::ObjectRef{0}, zok::ObjectRef{from_var}}));
    uint32_t from_temp = new_long(4);
    zok_var* temp = host.make_temp(zok::PointerRef{from_temp});

    uint32_t lone = new_long(5);
    uint32_t cycle1 = make(0, 0, "c1");
    uint32_t cycle2 = make(cycle1, 0, "c2");
    std::memcpy(host_struct_tag_data(&host_heap_var(cycle1)->var, "NEXT", 0, 0, 0), &cycle2, 4);
    size_t texts = host.live_texts();

    EXPECT_EQ(host.collect(), 3u);
    for (uint32_t id : {leaf, in_array, array, b, a, held, from_var, from_temp})
        EXPECT_TRUE(host.heap_alive(id)) << id;
    for (uint32_t id : {lone, cycle1, cycle2})
        EXPECT_FALSE(host.heap_alive(id)) << id;
    EXPECT_EQ(host.live_texts(), texts - 2);

    // Dropping the roots lets everything go.
    host_heap_var(held)->flags &= ~uint32_t{ZOK_HEAP_HELD};
    host.erase_var("X");
    host_release_temp(temp);
    EXPECT_EQ(host.collect(), 8u);
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.live_texts(), 0u);
}

TEST(HostStructs, FlatInheritedLayoutAndTagLookUp) {
    zok::Host host;
    zok_struct_def* parent =
        host.define_struct("BASE", {{"TOP", ZOK_T_DOUBLE}, {"VERSION", ZOK_T_LONG}});
    zok_struct_def* child = host.define_struct(
        "DERIVED",
        {{"OWN", ZOK_T_LONG}, {"FLAG", ZOK_T_BYTE}, {"TEXT", ZOK_T_STRING}, {"PTR", ZOK_T_POINTER}},
        "BASE");
    EXPECT_EQ(parent->size, 16u);
    EXPECT_EQ(child->parent, parent);
    EXPECT_STREQ(child->name, "DERIVED");
    zok_var* t = host_temp_struct(child);
    auto offset = [&](const char* tag) {
        return static_cast<char*>(host_struct_tag_data(t, tag, 0, 0, 0)) -
               static_cast<char*>(t->value.st.data);
    };
    // The own tags continue right after the parent's last tag.
    EXPECT_EQ(offset("TOP"), 0);
    EXPECT_EQ(offset("VERSION"), 8);
    EXPECT_EQ(offset("OWN"), 12);
    EXPECT_EQ(offset("FLAG"), 16);
    EXPECT_EQ(offset("TEXT"), 24);
    EXPECT_EQ(offset("PTR"), 40);
    // A name at an address looked up before may hold another name now.
    char reused[8] = "OWN";
    EXPECT_EQ(offset(reused), 12);
    std::strcpy(reused, "FLAG");
    EXPECT_EQ(offset(reused), 16);
    EXPECT_EQ(child->size, 48u);
    EXPECT_EQ(child->align, 8u);
    for (size_t i = 0; i < child->size; ++i)
        ASSERT_EQ(static_cast<char*>(t->value.st.data)[i], 0) << "instance not zeroed at " << i;
    expect_error(ZOK_ERR_STRUCT, [&] { host_struct_tag_data(t, "MISSING", 0, 0, 0); });
    host_release_temp(t);

    // The prepared form lists the string tags; copies and frees visit them.
    const auto* prepared = static_cast<const uint32_t*>(host_struct_prepare("DERIVED", 0, 0, 1, 2));
    ASSERT_NE(prepared, nullptr);
    EXPECT_EQ(prepared[0], 1u);
    EXPECT_EQ(prepared[1], 24u);
    child->prepared = prepared;
    zok_var* s = host.make_temp(zok::StructValue{"DERIVED", {{"TEXT", "hello"}, {"OWN", 3}}});
    zok_var copy{};
    host_var_copy(s, &copy, 0);
    EXPECT_EQ(host.live_texts(), 2u);
    EXPECT_EQ(host.read(copy), host.read(*s));
    host_var_free_value(&copy);
    host_release_temp(s);
    EXPECT_EQ(host.live_texts(), 0u);
}

TEST(HostStructs, RegistryRefusesAnotherLayoutUnderAnExistingName) {
    zok::Host host;
    const zok_tag_entry tags[] = {{"A", nullptr, ZOK_T_LONG, 0, {}}, {nullptr, nullptr, 0, 0, {}}};
    const zok_tag_entry other[] = {{"A", nullptr, ZOK_T_DOUBLE, 0, {}},
                                   {nullptr, nullptr, 0, 0, {}}};
    zok_struct_def* def = host_make_struct("ONE", 16, tags, 2);
    ASSERT_NE(def, nullptr);
    EXPECT_EQ(host_make_struct("ONE", 16, tags, 2), def);
    EXPECT_EQ(host_make_struct("ONE", 16, other, 2), nullptr);
    EXPECT_EQ(host.messages().back().code, ZOK_ERR_STRUCT);
    const zok_tag_entry orphan[] = {{"NOPARENT", nullptr, 0, ZOK_TAG_INHERIT, {}},
                                    {"A", nullptr, ZOK_T_LONG, 0, {}},
                                    {nullptr, nullptr, 0, 0, {}}};
    EXPECT_EQ(host_make_struct("TWO", 16, orphan, 2), nullptr);
    const zok_tag_entry twice[] = {{"A", nullptr, ZOK_T_LONG, 0, {}},
                                   {"A", nullptr, ZOK_T_BYTE, 0, {}},
                                   {nullptr, nullptr, 0, 0, {}}};
    EXPECT_EQ(host_make_struct("THREE", 16, twice, 2), nullptr);
    EXPECT_EQ(host.find_struct("TWO"), nullptr);
    EXPECT_EQ(host.find_struct("THREE"), nullptr);
}

} // namespace
