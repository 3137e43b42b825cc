#pragma once

#include <fl/export.hpp>
#include <fl/i18n/ustring.hpp>

#include <boost/exception/exception.hpp>
#include <boost/throw_exception.hpp>

#include <atomic>
#include <exception>
#include <string>
#include <utility>

namespace foundation::core::except {

using fl::i18n::ustring;

// The interface of every exception of the platform: clonable into a boost::exception_ptr
// (clone/rethrow of boost's clone_base) and printable as UTF-16 text.
class VFS_EXPORT IException : public virtual boost::exception_detail::clone_base {
public:
    IException() = default;
    IException(const IException&) = default;
    IException& operator=(const IException&) = default;
    ~IException() noexcept override;

    ustring ToUstring() const { return ToUstringImpl(); }

private:
    // Default text: the UTF-16 of std::exception::what() when the object is a std::exception,
    // otherwise "Unknown exception".
    virtual ustring ToUstringImpl() const;
};

// Marks exceptions raised by the platform's own code (as opposed to user callbacks).
class VFS_EXPORT IInternalException : public virtual IException {
public:
    ~IInternalException() noexcept override;
};

namespace detail {

// The UTF-8 text of what(), computed once on first use. Thread-safe: two threads may race to
// compute it, one wins, the other's copy is dropped. Copies start empty and compute their own.
class VFS_EXPORT LazyWhat {
public:
    LazyWhat() noexcept = default;
    LazyWhat(const LazyWhat&) noexcept {}
    LazyWhat& operator=(const LazyWhat&) noexcept
    {
        reset();
        return *this;
    }
    ~LazyWhat() { reset(); }

    // Returns the cached text, or stores and returns the UTF-8 of compute(); never throws (a failing
    // computation yields a fixed fallback text).
    template <class Compute>
    const char* get(Compute&& compute) const noexcept
    {
        if (const std::string* text = m_text.load(std::memory_order_acquire))
            return text->c_str();
        return install(std::forward<Compute>(compute));
    }

private:
    template <class Compute>
    const char* install(Compute&& compute) const noexcept
    {
        std::string* fresh = nullptr;
        try {
            fresh = new std::string(fl::i18n::ustring_to_utf8_lossy(compute()));
        } catch (...) {
            return "exception text unavailable";
        }
        const std::string* expected = nullptr;
        if (!m_text.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
            delete fresh;
            return expected->c_str();
        }
        return fresh->c_str();
    }
    void reset() noexcept { delete m_text.exchange(nullptr); }

    mutable std::atomic<const std::string*> m_text{nullptr};
};

} // namespace detail

// Base of concrete exceptions: implements what() as the UTF-8 of the private virtual ToUstringImpl
// of the most-derived class. Base is a std::exception type whose constructors are inherited.
template <class Interface, class Base>
class Exception : public Interface, public Base {
public:
    using Base::Base;
    explicit Exception(const Base& original) : Base(original) {}
    Exception() = default;
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() noexcept override = default;

    const char* what() const noexcept override
    {
        return m_what.get([this] { return this->ToUstring(); });
    }

private:
    // Default text: the message the standard base was built with. (IException's default would ask
    // what(), which is this class's own and would ask again.)
    ustring ToUstringImpl() const override { return fl::i18n::utf8_to_ustring_lossy(Base::what()); }

    detail::LazyWhat m_what;
};

namespace detail {

// Adds the IInternalException interface to an exception type T that lacks it, keeping T's own
// message: what() is T::what(), the UTF-16 text is converted from it.
template <class T>
class AnonymousInternalException : public Exception<IInternalException, T> {
public:
    explicit AnonymousInternalException(const T& original) : Exception<IInternalException, T>(original) {}
    template <class... Args>
    explicit AnonymousInternalException(std::in_place_t, Args&&... args)
        : Exception<IInternalException, T>(std::forward<Args>(args)...)
    {
    }

    const char* what() const noexcept override { return T::what(); }
    boost::exception_detail::clone_base const* clone() const override
    {
        return new AnonymousInternalException(*this);
    }
    void rethrow() const override { throw *this; }

private:
    ustring ToUstringImpl() const override { return fl::i18n::utf8_to_ustring_lossy(T::what()); }
};

} // namespace detail

} // namespace foundation::core::except
