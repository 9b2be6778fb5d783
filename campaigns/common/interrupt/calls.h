#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What a system call is to a campaign.
enum class Kind {
    Change, ///< changes what is on disk, takes a lock or starts a program
    Access, ///< can fail, but changes nothing outside the process
    Memory, ///< asks for memory
    Other,  ///< cannot fail, or is of no interest
};

/// A system call at its entry.
struct Call {
    std::uint64_t number;
    std::array<std::uint64_t, 6> arguments;
};

/// How a call's arguments name what it acts on; "at" forms are a directory descriptor followed by a path. The
/// descriptor is the first argument, that of Output the third.
enum class Names { Nothing, Descriptor, Output, Path, PathAt, TwoPaths, TwoPathsAt };

/// One line of the table of calls.
struct CallType {
    const char* name;
    Kind kind;
    Names names;
};

/// Returns the type of `call`; the kind depends on its arguments where one call has several uses. Calls that
/// the table does not know are Other.
CallType typeOf(const Call& call);

/// The numbers of all calls that the table knows.
std::vector<std::uint64_t> knownCalls();

/// Tells whether `call` is the first one that the program under test makes by itself, not its loader.
bool beginsProgram(const Call& call);

/// Tells whether `call` opens a file and returns its descriptor.
bool opensFile(const Call& call);

/// Tells whether `call` ends the whole process in good order.
bool endsProgram(const Call& call);

/// Tells whether `call` starts another process.
bool startsProcess(const Call& call);

/// Tells whether `call` has no error numbers: it fails by returning the state that a first argument of 0 asks
/// for.
bool failsByItsState(const Call& call);

/// Tells whether `call` may fail with that error number when a whole resource is used up or broken; errors of
/// other kinds are taken to be possible everywhere.
bool mayFailWith(const Call& call, int error);

/// Returns the index of the argument that limits how many bytes `call` reads or writes, if there is one.
std::optional<std::size_t> lengthArgument(const Call& call);

/// Returns "change", "access", "memory" or "other".
const char* nameOf(Kind kind);

/// The reverse of nameOf; nothing for any other text.
std::optional<Kind> kindNamed(std::string_view name);
