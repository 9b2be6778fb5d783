#pragma once

#include "support/disk.h"
#include "validate/invalid.h"

#include <exception>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace maintenance::rehearsed {

/// How a call ended: what it returned, or the kind and message of the exception that it threw.
struct Ending {
    /// "returned", "Invalid", "runtime error" (nothing more special than that), "system error" or "other".
    std::string kind;
    std::string text;

    bool operator==(const Ending&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const Ending& ending)
{
    return stream << ending.kind << " \"" << ending.text.substr(0, 300) << "\"";
}

/// The call returned, with this text as its result.
inline Ending returned(const std::string& text = "") { return {"returned", text}; }
/// The call threw Invalid: exit status 65.
inline Ending invalid(const std::string& message) { return {"Invalid", message}; }
/// The call threw a plain runtime error: exit status 70.
inline Ending runtimeError(const std::string& message) { return {"runtime error", message}; }

/// Carries out `call`, which returns a text or nothing, and gives what it returned.
template <typename Call> std::string resultOf(const Call& call)
{
    if constexpr (std::is_void_v<std::invoke_result_t<Call>>) {
        call();
        return {};
    } else {
        return call();
    }
}

/// Carries out `call` and tells how it ended.
template <typename Call> Ending endingOf(const Call& call)
{
    try {
        return returned(resultOf(call));
    } catch (const Invalid& error) {
        return invalid(error.what());
    } catch (const std::system_error& error) {
        return {"system error", error.what()};
    } catch (const std::runtime_error& error) {
        return {typeid(error) == typeid(std::runtime_error) ? "runtime error" : "other", error.what()};
    } catch (const std::exception& error) {
        return {"other", error.what()};
    }
}

/// How many descriptors this process has open.
inline std::size_t openDescriptors() { return namesIn("/proc/self/fd").size(); }

} // namespace maintenance::rehearsed
