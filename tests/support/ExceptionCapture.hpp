#pragma once

// What a call throws, for tests. Inspection happens inside the handler, on the object that was
// thrown: a copy would lose what boost::throw_exception adds (boost::exception, error information)
// and the most-derived type.

#include <boost/exception_ptr.hpp>

#include <gtest/gtest.h>

#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace vfs_test {

// The current exception's type and text, for failure messages; call only inside a handler.
inline std::string describeCurrentException()
{
    try {
        throw;
    } catch (const std::exception& error) {
        return std::string(typeid(error).name()) + ": " + error.what();
    } catch (...) {
        return "an exception that is no std::exception";
    }
}

// Runs `call`, which must throw, then `handle` inside the handler, where what `call` threw is the
// current exception (to nest it, translate it, capture it or describe it). Returns what `handle`
// returns; when `call` returns normally, adds a failure and returns a value-initialised result.
template <class Call, class Handle>
auto whileHandling(Call&& call, Handle&& handle) -> std::invoke_result_t<Handle>
{
    try {
        std::forward<Call>(call)();
    } catch (...) {
        return std::forward<Handle>(handle)();
    }
    ADD_FAILURE() << "nothing was thrown";
    return std::invoke_result_t<Handle>();
}

// What `call` throws, as std::current_exception() holds it.
template <class Call>
std::exception_ptr captured(Call&& call)
{
    return whileHandling(std::forward<Call>(call), [] { return std::current_exception(); });
}

// What `call` throws, as boost::current_exception() holds it.
template <class Call>
boost::exception_ptr boostCaptured(Call&& call)
{
    return whileHandling(std::forward<Call>(call), [] { return boost::current_exception(); });
}

// A call that throws what `error` holds (and returns when it holds nothing), to hand a captured
// exception to the helpers here.
inline auto rethrowing(std::exception_ptr error)
{
    return [error = std::move(error)] {
        if (error)
            std::rethrow_exception(error);
    };
}
inline auto rethrowing(boost::exception_ptr error)
{
    return [error = std::move(error)] {
        if (error)
            boost::rethrow_exception(error);
    };
}

// A copy of the E that `call` throws; nullopt when it returns normally. Other exceptions pass on.
template <class E, class Call>
std::optional<E> thrown(Call&& call)
{
    try {
        std::forward<Call>(call)();
    } catch (const E& error) {
        return error;
    }
    return std::nullopt;
}

// Runs `call`, which must throw an E, and hands the thrown object to `inspect` inside the handler.
// Returns what `inspect` returns; when `call` returns normally or throws anything else, adds a
// failure and returns a value-initialised result.
template <class E, class Call, class Inspect>
auto inspectThrown(Call&& call, Inspect&& inspect) -> std::invoke_result_t<Inspect, const E&>
{
    using Result = std::invoke_result_t<Inspect, const E&>;
    try {
        std::forward<Call>(call)();
    } catch (const E& error) {
        return std::forward<Inspect>(inspect)(error);
    } catch (...) {
        ADD_FAILURE() << "expected " << typeid(E).name() << ", caught " << describeCurrentException();
        return Result();
    }
    ADD_FAILURE() << "nothing was thrown, expected " << typeid(E).name();
    return Result();
}

// The what() of the E that `call` throws; empty, with a failure added, when it throws no E.
template <class E, class Call>
std::string whatOf(Call&& call)
{
    return inspectThrown<E>(std::forward<Call>(call), [](const E& error) { return std::string(error.what()); });
}

} // namespace vfs_test
