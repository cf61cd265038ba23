// The intrusive list: order, removal anywhere, the closed ring, empty lists.
#include "test_support.hpp"

TEST(List, OrderRemovalAndTheClosedRing) {
    LST_List *list = LST_Create();
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(LST_First(list) == nullptr && LST_GetHead(list) == 0u);
    LST_Elem e[4];
    for (auto &x : e) LST_PutTail(list, LST_InitElem(&x));
    EXPECT_TRUE(LST_First(list) == &e[0] && LST_Next(list, &e[0]) == &e[1] && LST_Next(list, &e[3]) == nullptr);
    LST_RemoveElem(list, &e[1]);  // middle
    LST_RemoveElem(list, &e[3]);  // last
    EXPECT_TRUE(LST_Next(list, &e[0]) == &e[2] && e[2].prev == &e[0] && list->prev == &e[2] && e[2].next == list);
    EXPECT_EQ(LST_GetHead(list), reinterpret_cast<uintptr_t>(&e[0]));
    EXPECT_TRUE(LST_GetHead(list) == reinterpret_cast<uintptr_t>(&e[2]) && LST_GetHead(list) == 0u);
    EXPECT_TRUE(list->next == list && list->prev == list);  // closed on the head in both directions
    LST_RemoveElem(list, &e[0]);                            // from an empty list: nothing
    EXPECT_TRUE(list->next == list && LST_First(list) == nullptr);
    LST_Delete(list);
}
