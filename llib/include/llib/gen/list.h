// An intrusive, singly linked list: each item carries its own link (pNext, from LListable), the
// newest item is at the head, and removal searches for the item's predecessor. The list owns
// nothing until Clear, which deletes what is left. Not locked: the owner guards it.
#pragma once

#include <cstddef>

class LListable {
public:
    LListable* pNext = nullptr;
};

template <class T>
class LList {
public:
    LList() = default;
    LList(const LList&) = delete;
    LList& operator=(const LList&) = delete;

    // Puts item at the head.
    void Add(T* item) {
        LListable* link = item;
        link->pNext = pHead;
        pHead = link;
    }

    // Unlinks item; false when it is not in the list (the list is then unchanged).
    bool Remove(T* item) {
        LListable* target = item;
        LListable** link = &pHead;
        while (*link != nullptr) {
            if (*link == target) {
                *link = target->pNext;
                target->pNext = nullptr;
                return true;
            }
            link = &(*link)->pNext;
        }
        return false;
    }

    // Unlinks and returns the head item, or null when the list is empty.
    T* RemoveHead() {
        if (pHead == nullptr)
            return nullptr;
        LListable* head = pHead;
        pHead = head->pNext;
        head->pNext = nullptr;
        return static_cast<T*>(head);
    }

    // Unlinks and deletes the items from the head until the list is empty.
    void Clear() {
        while (T* item = RemoveHead())
            delete item;
    }

    T* GetHead() const { return static_cast<T*>(pHead); }
    static T* GetNext(const T* item) {
        return static_cast<T*>(static_cast<const LListable*>(item)->pNext);
    }
    bool IsEmpty() const { return pHead == nullptr; }

    size_t GetCount() const {
        size_t count = 0;
        for (LListable* link = pHead; link != nullptr; link = link->pNext)
            ++count;
        return count;
    }

    LListable* pHead = nullptr;
};

// Walks a list from the head: for (LListIterator<T> it(list); T* item = it.Next();) ...
// The current item may be unlinked during the walk; others may not.
template <class T>
class LListIterator {
public:
    explicit LListIterator(const LList<T>& list) : pNextItem(list.GetHead()) {}

    T* Next() {
        T* item = pNextItem;
        if (item != nullptr)
            pNextItem = LList<T>::GetNext(item);
        return item;
    }

private:
    T* pNextItem;
};
