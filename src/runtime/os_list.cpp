// Singly linked list of opaque values with a cursor that can erase while
// iterating.
#include <cstdlib>

#include "runtime/os.h"

namespace {

// Links a new node so that it becomes element pos (already clamped to
// 0..count). Returns the node, or null when it cannot be allocated.
os_list_node* LinkNode(os_list* list, void* value, int pos) {
    os_list_node* node = static_cast<os_list_node*>(calloc(1, sizeof(os_list_node)));
    if (!node) return nullptr;
    node->value = value;
    os_list_node** link = &list->head;
    for (int i = 0; i < pos && *link; ++i) link = &(*link)->next;
    node->next = *link;
    *link = node;
    ++list->count;
    return node;
}

int ClampPos(const os_list* list, int pos) {
    return (pos < 0 || pos >= list->count) ? list->count : pos;
}

}  // namespace

os_list* os_list_create() { return static_cast<os_list*>(calloc(1, sizeof(os_list))); }

int os_list_insert(os_list* list, void* value, int pos) {
    if (!list) return -1;
    if (!LinkNode(list, value, ClampPos(list, pos))) return -1;
    return list->count;
}

void* os_list_get(os_list* list, int i) {
    if (!list || i < 0 || i >= list->count) return nullptr;
    os_list_node* node = list->head;
    for (int k = 0; k < i && node; ++k) node = node->next;
    return node ? node->value : nullptr;
}

int os_list_at_end(os_list* list, int i) {
    if (!list) return -1;
    return i >= list->count ? 1 : 0;
}

int os_list_remove(os_list* list, int i) {
    if (!list || i < 0 || i >= list->count) return -1;
    os_list_node** link = &list->head;
    for (int k = 0; k < i && *link; ++k) link = &(*link)->next;
    os_list_node* node = *link;
    if (!node) return -1;
    *link = node->next;
    free(node);
    --list->count;
    return list->count;
}

int os_list_count(os_list* list) { return list ? list->count : -1; }

void os_list_destroy(os_list* list, void (*fn)(void*)) {
    if (!list) return;
    while (os_list_at_end(list, 0) == 0) {
        void* value = os_list_get(list, 0);
        os_list_remove(list, 0);
        if (fn) fn(value);
    }
    free(list);
}

void* os_list_begin(os_list* list, os_list_iter* it) {
    if (!it) return nullptr;
    if (!list || list->count <= 0 || !list->head) {
        it->cur = nullptr;
        it->link = nullptr;
        it->list = list;
        it->index = 0;
        return nullptr;
    }
    it->cur = list->head;
    it->link = &list->head;
    it->list = list;
    it->index = 0;
    return it->cur->value;
}

void* os_list_next(os_list_iter* it) {
    if (!it || !it->cur) return nullptr;
    it->link = &it->cur->next;
    it->cur = it->cur->next;
    ++it->index;
    if (!it->cur || it->index >= it->list->count) {
        it->cur = nullptr;
        return nullptr;
    }
    return it->cur->value;
}

void* os_list_erase(os_list_iter* it) {
    if (!it || !it->cur || !it->list || it->index >= it->list->count) return nullptr;
    os_list_node* node = it->cur;
    --it->list->count;
    *it->link = node->next;
    free(node);
    it->cur = *it->link;
    return it->cur ? it->cur->value : nullptr;
}
