#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Splits `text` at every `separator`; empty parts are kept, so there is always at least one.
std::vector<std::string> split(std::string_view text, char separator);

/// Splits `text` into lines. A last line without a line feed counts; nothing after the last line feed does
/// not.
std::vector<std::string> lines(std::string_view text);

/// Returns the number that `text` spells with decimal digits alone, or nothing if it is anything else or
/// more than 1'000'000'000.
std::optional<unsigned long> number(std::string_view text);

/// Returns `path` without the slashes at its end; "/" stays.
std::string withoutEndSlash(std::string path);

/// Tells whether `path` stands before `other` in a listing that goes depth first through a tree and through
/// each directory in byte order. That is not the byte order of whole paths: "a/z" stands before "a.b".
bool standsBefore(std::string_view path, std::string_view other);
