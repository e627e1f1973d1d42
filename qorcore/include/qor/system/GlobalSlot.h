// Values that exist once in the process, by name: whoever asks first makes the value, and everybody gets the same one,
// the program as well as its modules, which share no variables otherwise. docs/components.md has an example.
//
// - One thread makes a value; others that want it wait. If that fails, the failure is the maker's own, the value does
//   not exist, and one of those who wait makes it with its own function.
// - A value that is wanted while it is being made, by its own maker or by another thread for whose value that maker
//   waits, is an error of the one who would wait for himself (qorError_global_slot_circular).
// - qorCleanup destroys the values after its clean-up routines, the one made last first. A destructor may use values
//   that were made earlier; one that does not exist any more is not made again (qorError_global_slots_end). After
//   qorCleanup, values can be made anew. Without qorCleanup they live until the process ends, and are not destroyed.
// - A forked child has the values of its parent. One that another thread was making does not exist there.
#pragma once

#include "qor/system/Error.h"

#include <concepts>
#include <exception>
#include <memory>
#include <new>

// What a maker has made.
struct qorGlobalValue {
    void* value = nullptr;                           // any pointer, also null
    void (*destroy)(void* value) noexcept = nullptr; // called by qorCleanup; null: nothing is to be done
};

// Makes a value. Returns false and sets the last error on failure. It is called without a lock, may want other values,
// and lets no exception out.
using qorGlobalMaker = bool (*)(void* context, qorGlobalValue& made) noexcept;

// Gets the value of a name. The first call makes it by `maker(context)`; a null maker only looks
// (qorError_global_slot_unmade). `type` says what it is, in any words: a value that was made with other words is
// refused (qorError_global_slot_type), so that nobody takes it for something else. Keep the pointer: each call takes a
// lock.
[[nodiscard]] inline bool qorGetGlobalSlot(const char* name, const char* type, qorGlobalMaker maker, void* context,
                                           void** out) noexcept {
    return qor::glue::qorGetGlobalSlot(name, type, maker, context, out);
}

namespace qor::glue {

// The name of a type, as a text that ends with a zero byte.
template <class TYPE>
inline constexpr joined_text<type_name<TYPE>().size()> value_type_text{{type_name<TYPE>()}};

} // namespace qor::glue

// The same for an object of this type, which `make()` returns in a std::unique_ptr; a null one is a failure, whose
// error `make` has set. Its exceptions become errors. Returns null on failure. The type is known by its C++ name, so
// one in an unnamed namespace should not be shared.
template <class TYPE, std::invocable MAKE>
requires std::convertible_to<std::invoke_result_t<MAKE&>, std::unique_ptr<TYPE>>
[[nodiscard]] TYPE* qorGetGlobalSlot(const char* name, MAKE make) noexcept {
    struct call {
        const char* name;
        MAKE& make;
    } context{name, make};
    const auto run = [](void* of, qorGlobalValue& made) noexcept {
        const call& here = *static_cast<const call*>(of);
        try {
            std::unique_ptr<TYPE> value = here.make();
            made.value = value.release();
            made.destroy = [](void* old) noexcept { delete static_cast<TYPE*>(old); };
        } catch (const std::bad_alloc&) {
            qorSetLastError(qorError_out_of_memory);
        } catch (const std::exception& thrown) {
            qorSetLastError(qorError_global_slot_failed, here.name, thrown.what());
        } catch (...) {
            qorSetLastError(qorError_unknown);
        }
        return made.value != nullptr;
    };
    void* value = nullptr;
    const bool is_there =
        qor::glue::qorGetGlobalSlot(name, qor::glue::value_type_text<TYPE>.text, run, &context, &value);
    return is_there ? static_cast<TYPE*>(value) : nullptr;
}

// The same for an object that needs no arguments: `qorGetGlobalSlot<counters>("vendor.counters")`.
template <std::default_initializable TYPE>
[[nodiscard]] TYPE* qorGetGlobalSlot(const char* name) noexcept {
    return qorGetGlobalSlot<TYPE>(name, [] { return std::make_unique<TYPE>(); });
}
