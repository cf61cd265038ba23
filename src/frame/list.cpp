// The intrusive list: a circular doubly linked ring through a sentinel head.
#include "frame/internal.hpp"
#include "kavro_rt/lst.h"
#include "kavro_rt/mem.h"

namespace {
int32_t cRefs = 0;

bool is_empty(const LST_List *list) { return list == nullptr || list->next == list || list->next == nullptr; }
}  // namespace

extern "C" {

KAVRO_API int32_t LST_Init(void) {
    if (cRefs > 0) {
        ++cRefs;
        return 1;
    }
    MEM_Init();
    ++cRefs;
    return 0;
}

KAVRO_API void LST_Exit(void) {
    if (--cRefs == 0) MEM_Exit();
}

KAVRO_API LST_List *LST_Create(void) {
    auto *head = static_cast<LST_List *>(MEM_Calloc(sizeof(LST_List), kavro::detail::kGenericMarker));
    if (head != nullptr) head->next = head->prev = head;
    return head;
}

KAVRO_API void LST_Delete(LST_List *list) { MEM_Free2(list); }

KAVRO_API LST_Elem *LST_InitElem(LST_Elem *elem) {
    if (elem != nullptr) {
        elem->next = elem->prev = nullptr;
        elem->data = reinterpret_cast<uintptr_t>(elem);
    }
    return elem;
}

KAVRO_API LST_Elem *LST_PutTail(LST_List *list, LST_Elem *elem) {
    if (list == nullptr || elem == nullptr) return nullptr;
    LST_Elem *last = list->prev;
    elem->prev = last;
    elem->next = list;
    list->prev = elem;
    last->next = elem;
    return elem;
}

KAVRO_API uintptr_t LST_GetHead(LST_List *list) {
    if (is_empty(list)) return 0;
    LST_Elem *first = list->next;
    list->next = first->next;
    first->next->prev = list;
    return first->data;
}

KAVRO_API LST_Elem *LST_First(LST_List *list) { return is_empty(list) ? nullptr : list->next; }

KAVRO_API LST_Elem *LST_Next(LST_List *list, LST_Elem *elem) {
    if (is_empty(list) || elem == nullptr || elem->next == list) return nullptr;
    return elem->next;
}

KAVRO_API void LST_RemoveElem(LST_List *list, LST_Elem *elem) {
    if (is_empty(list) || elem == nullptr || elem->next == nullptr || elem->prev == nullptr) return;
    elem->prev->next = elem->next;
    elem->next->prev = elem->prev;
}

}  // extern "C"
