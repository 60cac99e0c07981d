/// @file
/// @ingroup HalvosCore
/// @brief hv::Ref, the owning handle of one reference to a runtime object.
///
/// Part of the C++ interface (`#include <HalvosCore/HalvosCore.hpp>`). A Ref holds one reference:
/// copying retains, destruction releases, moving hands the reference over. Make one with
/// hv::adopt(p) for a pointer a Create or Copy function returned (the Ref takes over that
/// reference) or with hv::retain(p) for a borrowed pointer (the Ref adds one of its own), so that
/// the +1/+0 choice is visible at every call site. get() lends the raw pointer to C functions.
#ifndef HALVOSCORE_REF_HPP
#define HALVOSCORE_REF_HPP

#include <HalvosCore/HalvosCore.h>

#include <cstddef>
#include <type_traits>
#include <utility>

/** Marks a class or function of the C++ interface that libHalvosCore exports. */
#define HV_API HV_EXPORT

namespace hv {
inline namespace v1 {

/** One owned reference to a runtime object of handle type T (RtStringRef, HVMethodInvocationRef,
 * ...). Copy retains, destruction releases, move steals; an empty Ref holds nothing. */
template <class T> class Ref {
    static_assert(std::is_pointer_v<T>, "hv::Ref takes a runtime handle type such as RtStringRef");

  public:
    /** An empty Ref. */
    constexpr Ref() noexcept = default;
    /** An empty Ref. */
    constexpr Ref(std::nullptr_t) noexcept {}
    /** Shares other's object: one more reference. */
    Ref(const Ref &other) noexcept : fObject(other.fObject) { RtRetain(fObject); }
    /** Takes over other's reference; other is left empty. */
    Ref(Ref &&other) noexcept : fObject(std::exchange(other.fObject, nullptr)) {}
    /** Converts from a Ref of a handle type that converts to T (mutable to immutable). */
    template <class U, class = std::enable_if_t<std::is_convertible_v<U, T> && !std::is_same_v<U, T>>>
    Ref(Ref<U> other) noexcept : fObject(other.release()) {}
    /** Releases the reference held, if any. */
    ~Ref() { RtRelease(fObject); }

    /** Shares other's object, releasing the one held before. */
    Ref &operator=(Ref other) noexcept {
        swap(other);
        return *this;
    }

    /** Takes over a reference the caller owns (a Create or Copy result); NULL gives an empty Ref. */
    static Ref adopt(T object) noexcept {
        Ref ref;
        ref.fObject = object;
        return ref;
    }
    /** Adds a reference of its own to a borrowed object; NULL gives an empty Ref. */
    static Ref retain(T object) noexcept {
        RtRetain(object);
        return adopt(object);
    }

    /** The object, borrowed: valid while this Ref (or another reference) keeps it. */
    T get() const noexcept { return fObject; }
    /** Hands the reference back to the caller, who must release it; the Ref is left empty. */
    [[nodiscard]] T release() noexcept { return std::exchange(fObject, nullptr); }
    /** Releases the object held and holds object instead (adopted, as with adopt). */
    void reset(T object = nullptr) noexcept { Ref::adopt(object).swap(*this); }
    /** Exchanges the objects of two Refs. */
    void swap(Ref &other) noexcept { std::swap(fObject, other.fObject); }
    /** True when an object is held. */
    explicit operator bool() const noexcept { return fObject != nullptr; }

    /** The same object (pointer identity). */
    friend bool operator==(const Ref &a, const Ref &b) noexcept { return a.fObject == b.fObject; }
    /** Not the same object. */
    friend bool operator!=(const Ref &a, const Ref &b) noexcept { return a.fObject != b.fObject; }

  private:
    T fObject = nullptr;
};

/** A Ref that takes over object, a reference returned by a Create or Copy function. */
template <class T> Ref<T> adopt(T object) noexcept {
    return Ref<T>::adopt(object);
}
/** A Ref that adds its own reference to a borrowed object. */
template <class T> Ref<T> retain(T object) noexcept {
    return Ref<T>::retain(object);
}

} // namespace v1
} // namespace hv

#endif
