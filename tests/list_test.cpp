// The intrusive list.
#include <gtest/gtest.h>

#include "kavro_rt/kavro_rt.h"

namespace {

struct Record {
    int value;
    LST_Elem link;
};

class List : public testing::Test {
protected:
    void SetUp() override {
        LST_Init();
        list = LST_Create();
        ASSERT_NE(list, nullptr);
        for (auto &e : elems) LST_PutTail(list, LST_InitElem(&e));
    }
    void TearDown() override {
        LST_Delete(list);
        LST_Exit();
    }
    uintptr_t addr(int i) { return reinterpret_cast<uintptr_t>(&elems[i]); }
    LST_List *list = nullptr;
    LST_Elem elems[3];
};

TEST_F(List, WalkAndTakeInInsertionOrder) {
    EXPECT_EQ(LST_First(list), &elems[0]);
    EXPECT_EQ(LST_Next(list, &elems[0]), &elems[1]);
    EXPECT_EQ(LST_Next(list, &elems[1]), &elems[2]);
    EXPECT_EQ(LST_Next(list, &elems[2]), nullptr);
    EXPECT_EQ(list->prev, &elems[2]);

    EXPECT_EQ(LST_GetHead(list), addr(0));
    EXPECT_EQ(LST_GetHead(list), addr(1));
    EXPECT_EQ(LST_GetHead(list), addr(2));
    EXPECT_EQ(LST_GetHead(list), 0u);
    EXPECT_EQ(LST_First(list), nullptr);
    // The ring closes on the head again in both directions.
    EXPECT_EQ(list->next, list);
    EXPECT_EQ(list->prev, list);
}

TEST_F(List, RemoveKeepsTheRingWhole) {
    LST_RemoveElem(list, &elems[1]);
    EXPECT_EQ(LST_Next(list, &elems[0]), &elems[2]);
    EXPECT_EQ(elems[2].prev, &elems[0]);
    LST_RemoveElem(list, &elems[2]);  // the last one
    EXPECT_EQ(list->prev, &elems[0]);
    LST_RemoveElem(list, &elems[0]);
    EXPECT_EQ(LST_First(list), nullptr);
    // Removing from an empty list and null arguments do nothing.
    LST_RemoveElem(list, &elems[0]);
    LST_RemoveElem(nullptr, &elems[0]);
    EXPECT_EQ(list->next, list);
}

TEST_F(List, EmbeddedElementsCarryTheirRecord) {
    Record r{42, {}};
    LST_InitElem(&r.link);
    r.link.data = reinterpret_cast<uintptr_t>(&r);
    while (LST_GetHead(list) != 0) {
    }
    LST_PutTail(list, &r.link);
    auto *got = reinterpret_cast<Record *>(LST_GetHead(list));
    ASSERT_EQ(got, &r);
    EXPECT_EQ(got->value, 42);
}

TEST(ListEdges, NullAndEmptyListsAreHarmless) {
    EXPECT_EQ(LST_Init(), 0);
    EXPECT_EQ(LST_Init(), 1);
    LST_Exit();
    LST_Exit();
    LST_List *l = LST_Create();
    EXPECT_EQ(LST_First(l), nullptr);
    EXPECT_EQ(LST_GetHead(l), 0u);
    LST_Delete(l);
}

}  // namespace
