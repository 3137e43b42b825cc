#pragma once

// Throwing foreign exception types as platform exceptions. Kept apart from Exception.hpp because
// attaching a cause needs Boost.Exception's error-info and exception_ptr machinery, which is heavy.

#include <foundation/core/except/Exception.hpp>

#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/info.hpp>
#include <boost/exception_ptr.hpp>

#include <utility>

namespace foundation::core::except {

// Throws `original` wrapped so that it is also an IInternalException, through boost::throw_exception
// (so it carries boost::exception information and clones into an exception_ptr).
template <class T>
[[noreturn]] void throwInternal(const T& original);

// As throwInternal, with `cause` attached as boost::errinfo_nested_exception.
template <class T>
[[noreturn]] void throwInternalWithCause(const T& original, boost::exception_ptr cause);

} // namespace foundation::core::except

template <class T>
[[noreturn]] void foundation::core::except::throwInternal(const T& original)
{
    boost::throw_exception(detail::AnonymousInternalException<T>(original));
}

template <class T>
[[noreturn]] void foundation::core::except::throwInternalWithCause(const T& original, boost::exception_ptr cause)
{
    boost::throw_exception(boost::enable_error_info(detail::AnonymousInternalException<T>(original))
                           << boost::errinfo_nested_exception(std::move(cause)));
}
