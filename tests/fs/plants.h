#pragma once

#include "support/disk.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/mount.h>
#include <system_error>
#include <vector>

/// Everything but a plain file of its own that can stand at a place.
namespace maintenance::rehearsed {

/// Something that is put at a free place; what it leads to, if anything, lies beside it.
struct Plant {
    std::string what;
    std::function<void(const std::filesystem::path& place, uid_t owner)> put;
};

/// The file that planted links lead to.
inline std::filesystem::path besideOf(const std::filesystem::path& place)
{
    return place.native() + ".beside";
}

/// Puts the null device at a place, by mounting it there.
inline void makeDevice(const std::filesystem::path& place, uid_t owner)
{
    writeFile(place, "", {owner, 0600});
    if (::mount("/dev/null", place.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "mount a device");
}

inline const std::vector<Plant>& foreignPlants()
{
    using Path = std::filesystem::path;
    static const std::vector<Plant> plants = {
        {"link to a file", [](const Path& place, uid_t) { makeLink(place, besideOf(place)); }},
        {"link to a directory", [](const Path& place, uid_t) { makeLink(place, "/Users/other"); }},
        {"dangling link", [](const Path& place, uid_t) { makeLink(place, "nowhere"); }},
        {"link to itself", [](const Path& place, uid_t) { makeLink(place, place.filename()); }},
        {"hard link", [](const Path& place, uid_t) { makeHardLink(place, besideOf(place)); }},
        {"pipe", [](const Path& place, uid_t owner) { makePipe(place, owner); }},
        {"socket", [](const Path& place, uid_t owner) { makeSocket(place, owner); }},
        {"directory",
         [](const Path& place, uid_t owner) {
             makeDirectories(place, {owner, 0700});
         }},
        {"device", [](const Path& place, uid_t owner) { makeDevice(place, owner); }},
    };
    return plants;
}

/// Lets `examine` look at each plant in turn; afterwards nothing is left of it.
template <typename Examine>
void withEachPlant(const std::filesystem::path& place, uid_t owner, const Examine& examine)
{
    for (const Plant& plant : foreignPlants()) {
        writeFile(besideOf(place), "beside", {owner, 0600});
        plant.put(place, owner);
        examine(plant.what);
        ::umount2(place.c_str(), MNT_DETACH);
        removeAll(place);
        removeAll(besideOf(place));
    }
}

} // namespace maintenance::rehearsed
