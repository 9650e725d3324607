// Two plain containers of raw arrays allocated with array new.
#pragma once

// An array of T owned for the object's life; elements are not initialised.
template <class T>
class LArray {
public:
    explicit LArray(unsigned int count) : pItems(new T[count]) {}
    ~LArray() { delete[] pItems; }
    LArray(const LArray&) = delete;
    LArray& operator=(const LArray&) = delete;
    operator T*() { return pItems; }
    T* pItems;
};

// A resizable array of T: pItems is null when the count is 0.
template <class T>
class LVector {
public:
    LVector() = default;
    ~LVector() { delete[] pItems; }
    LVector(const LVector&) = delete;
    LVector& operator=(const LVector&) = delete;

    // Reallocates to count elements, keeping the first min(old, new); elements beyond the old
    // count are left uninitialised. Does nothing when the count is unchanged.
    void SetSize(unsigned int count) {
        if (count == nCount)
            return;
        T* items = count > 0 ? new T[count] : nullptr;
        const unsigned int kept = count < nCount ? count : nCount;
        for (unsigned int i = 0; i < kept; ++i)
            items[i] = pItems[i];
        delete[] pItems;
        pItems = items;
        nCount = count;
    }
    unsigned int GetCount() const { return nCount; }
    T& operator[](unsigned int index) { return pItems[index]; }

    T* pItems = nullptr;
    unsigned int nCount = 0;
};
