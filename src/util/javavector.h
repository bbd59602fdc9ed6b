// JavaVector, the module's owning list of records, and JavaStack on top of it.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

/// A list of pointers to heap elements that it owns; slots may be null. The first 20 slots are
/// inline, so ordinary statements need no slot array. Status results are always 0; memory
/// exhaustion throws std::bad_alloc and leaves the list as it was.
template <typename T>
class JavaVector {
  public:
    JavaVector() = default;
    ~JavaVector() { Reset(); }
    JavaVector(const JavaVector&) = delete;
    JavaVector& operator=(const JavaVector&) = delete;

    /// Deletes all elements and the slot array.
    int Reset() { return Resize(0); }
    void Clear() { Reset(); }
    /// Sets the number of slots (a negative one counts as 0): elements beyond it are deleted, new
    /// slots are null. A number whose double is no int throws std::bad_array_new_length.
    int Resize(int size);
    int SetSize(int size) { return Resize(size); }
    int Size() const { return m_Count; }
    /// Slots in the present storage.
    int Capacity() const { return m_Capacity; }

    /// The element in the slot, still owned by the list; null out of bounds or for an empty slot.
    T* Get(int index) const { return InBounds(index) ? Slots()[index] : nullptr; }
    T* ElementAt(int index) const { return Get(index); }
    T* LastElement() const { return Get(m_Count - 1); }

    /// Appends a default-constructed element.
    int Add() { return Append(std::make_unique<T>()); }
    /// Appends a heap copy; the caller keeps its own object.
    int Add(const T& item) { return Append(std::make_unique<T>(item)); }
    int AddElement(const T& item) { return Add(item); }
    /// Inserts a heap copy at `index`.
    int Add(int index, const T& item) { return Insert(index, new T(item)); }
    /// Takes ownership of `pItem`, also when it throws, and puts it before the slot `index`; an
    /// index out of bounds means the nearer end.
    int Insert(int index, T* pItem);
    int InsertElementAt(T* pItem, int index) { return Insert(index, pItem); }
    /// Takes ownership of `pItem` and puts it into the slot, deleting the element already there.
    /// Out of bounds there is no slot to keep it and `pItem` is deleted.
    void SetElementAt(T* pItem, int index);

  private:
    static constexpr int kInlineSlots = 20;

    T* const* Slots() const { return m_pBuffer ? m_pBuffer.get() : m_DefBuffer; }
    T** Slots() { return m_pBuffer ? m_pBuffer.get() : m_DefBuffer; }
    bool InBounds(int index) const { return index >= 0 && index < m_Count; }
    int Append(std::unique_ptr<T> item) { return Insert(m_Count, item.release()); }

    int m_Count = 0;
    int m_Capacity = kInlineSlots;
    // Slots at m_Count and above are null in whichever array is current.
    T* m_DefBuffer[kInlineSlots] = {};
    std::unique_ptr<T*[]> m_pBuffer;
};

template <typename T>
int JavaVector<T>::Resize(int size) {
    const int count = std::max(size, 0);
    while (m_Count > count) {
        // Out of the list before it is deleted, so that no destructor can meet a dead slot.
        --m_Count;
        delete std::exchange(Slots()[m_Count], nullptr);
    }
    if (count <= kInlineSlots) {
        if (m_pBuffer) {
            std::copy_n(m_pBuffer.get(), m_Count, m_DefBuffer);
            m_pBuffer.reset();
            m_Capacity = kInlineSlots;
        }
    } else if (count > m_Capacity) {
        if (count > INT_MAX / 2) throw std::bad_array_new_length();
        const int capacity = 2 * count;
        std::unique_ptr<T*[]> grown(new T*[static_cast<std::size_t>(capacity)]());
        std::copy_n(Slots(), m_Count, grown.get());
        std::fill_n(m_DefBuffer, kInlineSlots, nullptr);
        m_pBuffer = std::move(grown);
        m_Capacity = capacity;
    }
    m_Count = count;
    return 0;
}

template <typename T>
int JavaVector<T>::Insert(int index, T* pItem) {
    std::unique_ptr<T> item(pItem);
    const int position = std::clamp(index, 0, m_Count);
    Resize(m_Count + 1);
    T** const slots = Slots();
    std::move_backward(slots + position, slots + m_Count - 1, slots + m_Count);
    slots[position] = item.release();
    return 0;
}

template <typename T>
void JavaVector<T>::SetElementAt(T* pItem, int index) {
    std::unique_ptr<T> item(pItem);
    if (!InBounds(index)) return;
    T*& slot = Slots()[index];
    T* const previous = std::exchange(slot, item.release());
    if (previous != slot) delete previous;
}

/// A stack of heap copies; the top is the last slot of its list.
template <typename T>
class JavaStack {
  public:
    int push(const T& item) { return m_vec.Add(item); }
    /// The newest element, owned by the stack; null when it is empty.
    T* top() const { return m_vec.LastElement(); }
    bool empty() const { return m_vec.Size() == 0; }
    int size() const { return m_vec.Size(); }

  private:
    JavaVector<T> m_vec;
};
