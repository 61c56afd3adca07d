// Doubly linked lists. The caller holds whatever lock guards the list.
#pragma once
#include <ntdef.h>

inline void InitializeListHead(PLIST_ENTRY head)
{
    head->Flink = head->Blink = head;
}

_Must_inspect_result_ inline BOOLEAN IsListEmpty(const LIST_ENTRY* head)
{
    return head->Flink == head;
}

/// True when the list that `entry` was on is now empty.
inline BOOLEAN RemoveEntryList(PLIST_ENTRY entry)
{
    PLIST_ENTRY next = entry->Flink;
    PLIST_ENTRY previous = entry->Blink;
    previous->Flink = next;
    next->Blink = previous;
    return next == previous;
}

inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}

inline void InsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    entry->Flink = head->Flink;
    entry->Blink = head;
    head->Flink->Blink = entry;
    head->Flink = entry;
}

inline void InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    entry->Flink = head;
    entry->Blink = head->Blink;
    head->Blink->Flink = entry;
    head->Blink = entry;
}
