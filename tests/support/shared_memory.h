// Memory that a test shares with the processes that it forks.
#ifndef TESTS_SUPPORT_SHARED_MEMORY_H
#define TESTS_SUPPORT_SHARED_MEMORY_H

#include <new>
#include <stdexcept>
#include <sys/mman.h>

// One object that forked processes share; all bytes are zero at first.
template <typename T> class shared_memory {
  public:
    shared_memory()
    {
        void *at = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (at == MAP_FAILED)
            throw std::runtime_error("no shared memory");
        object_ = new (at) T;
    }
    ~shared_memory()
    {
        munmap(object_, sizeof(T));
    }
    shared_memory(const shared_memory &) = delete;
    shared_memory &operator=(const shared_memory &) = delete;

    T *operator->() const
    {
        return object_;
    }
    T &operator*() const
    {
        return *object_;
    }

  private:
    T *object_;
};

#endif
