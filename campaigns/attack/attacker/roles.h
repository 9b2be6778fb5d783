#pragma once

#include "attacker/orders.h"

#include <atomic>
#include <string>
#include <string_view>

/// How often something was done, shared by all attackers and readable while they run.
struct Counts {
    std::atomic<std::uint64_t> exchanged;
    std::atomic<std::uint64_t> moved;
    std::atomic<std::uint64_t> written;
    std::atomic<std::uint64_t> locked;
    std::atomic<std::uint64_t> chmodded;
    std::atomic<std::uint64_t> planted;
    std::atomic<std::uint64_t> followed;
    std::atomic<std::uint64_t> searched;
};

/// What a role works with.
struct Means {
    const Order& order;
    Dice dice;
    Counts& counts;
};

/// Plays one role without end; nothing for a role that there is not.
using Role = void (*)(Means&);
Role roleNamed(std::string_view name);

/// Exchanges two names in one step. Returns false when that failed.
bool exchange(const std::string& one, const std::string& other);

/// Renames without replacing anything. Returns false when that failed.
bool renameAside(const std::string& from, const std::string& to);

// The roles. Words of their orders, where HOLD and REST are microseconds:

/// exchange HOLD REST (PLACE DECOY)...: puts a decoy into a place, and the former back
void playExchange(Means& means);
/// move HOLD REST (PLACE ASIDE)...: takes a file or tree away, and back
void playMove(Means& means);
/// write REST FILE...: appends, overwrites, lengthens and shortens
void playWrite(Means& means);
/// lock HOLD REST FILE: holds the lock
void playLock(Means& means);
/// mode REST PLACE...: changes modes to and fro
void playMode(Means& means);
/// plant HOLD REST YARD SECRET (DIRECTORY NAME)...: plants what stands where a temporary file is to be made
void playPlant(Means& means);
/// follow YARD SECRET DIRECTORY...: waits for what is made or opened in the directories, and disturbs that at
/// once
void playFollow(Means& means);
/// search DIRECTORY...: looks for secret bytes in everything that can be read
void playSearch(Means& means);
