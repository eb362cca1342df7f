/// The memory that Boost.JSON gets for requests and their texts, which may hold a password.
#pragma once

#include <boost/container/pmr/memory_resource.hpp>
#include <cstddef>
#include <cstring>
#include <new>

/// Wipes every block before it is given back. Has no state: one serves the whole process, from any thread.
class WipingResource final : public boost::container::pmr::memory_resource {
    /// Throws std::bad_alloc.
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        return ::operator new(bytes, std::align_val_t(alignment));
    }
    void do_deallocate(void* block, std::size_t bytes, std::size_t alignment) override {
        explicit_bzero(block, bytes);
        ::operator delete(block, std::align_val_t(alignment));
    }
    bool do_is_equal(const boost::container::pmr::memory_resource& other) const noexcept override {
        return dynamic_cast<const WipingResource*>(&other) != nullptr;
    }
};
