// A value that several actors look at and change without a lock, one whole load or store at a time. Which
// actor sees a change when is left open on purpose; where order matters, a lock or an event orders it.
#pragma once

template <class T>
class Racy {
  public:
    Racy() = default;
    operator T() const { return __atomic_load_n(&value_, __ATOMIC_RELAXED); }
    // What was stored by the matching Release is seen by whoever sees the value through this.
    T Acquire() const { return __atomic_load_n(&value_, __ATOMIC_ACQUIRE); }
    void Release(T value) { __atomic_store_n(&value_, value, __ATOMIC_RELEASE); }

    Racy& operator=(T value)
    {
        __atomic_store_n(&value_, value, __ATOMIC_RELAXED);
        return *this;
    }

  private:
    T value_;
};
