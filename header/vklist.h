/* Circular doubly linked list with a caller-owned head. */
#ifndef VKLIST_H
#define VKLIST_H

#include <stddef.h>

typedef struct _LIST_HEAD {
    struct _LIST_HEAD *next;
    struct _LIST_HEAD *prev;
} LIST_HEAD;

#define VK_LIST_INIT(head) do { (head)->next = (head); (head)->prev = (head); } while (0)
#define VK_LIST_EMPTY(head) ((head)->next == (head))
#define VK_LIST_ENTRY(link, type, member) ((type *)(void *)((char *)(link) - offsetof(type, member)))

static inline void vk_list_insert_between(LIST_HEAD *n, LIST_HEAD *prev, LIST_HEAD *next)
{
    next->prev = n;
    n->next = next;
    n->prev = prev;
    prev->next = n;
}

/* Insert n in front of pos (at the end of the list when pos is the head). */
static inline void vk_list_insert_before(LIST_HEAD *n, LIST_HEAD *pos)
{
    vk_list_insert_between(n, pos->prev, pos);
}

static inline void vk_list_add_tail(LIST_HEAD *n, LIST_HEAD *head)
{
    vk_list_insert_between(n, head->prev, head);
}

static inline void vk_list_del(LIST_HEAD *n)
{
    n->next->prev = n->prev;
    n->prev->next = n->next;
    n->next = n;
    n->prev = n;
}

#endif /* VKLIST_H */
