#pragma once

namespace maintenance {

/// How far a written file or directory must have got before a step counts as done.
enum class Durability {
    /// Handed to the drive: enough for one of many copies, which a record published later makes durable.
    Copy,
    /// On the storage medium, together with everything handed over before it on the same device.
    Record,
};

/// Synchronises the open file or directory `descriptor` (borrowed) as far as `durability` asks.
/// Returns false with errno set when the device refuses; the caller words the error.
bool synchronize(int descriptor, Durability durability);

} // namespace maintenance
