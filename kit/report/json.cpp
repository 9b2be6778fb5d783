#include "kit/report/json.h"

#include "kit/report/failure.h"
#include "kit/report/printable.h"

#include <set>
#include <vector>

namespace maintenance::kit {

namespace {

/// What the library says, without the number of its own error in front.
std::string reasonOf(const nlohmann::json::exception& error)
{
    const std::string_view what = error.what();
    const std::size_t end = what.find("] ");
    return printable(end == std::string_view::npos ? what : what.substr(end + 2));
}

/// Finds members that an object has twice, of which the library would keep the last.
class MemberWatch {
public:
    explicit MemberWatch(std::string place, std::string advice)
        : place_(std::move(place)), advice_(std::move(advice))
    {
    }

    bool operator()(int, Json::parse_event_t event, const Json& parsed)
    {
        if (event == Json::parse_event_t::object_start)
            open_.emplace_back();
        if (event == Json::parse_event_t::object_end)
            open_.pop_back();
        if (event == Json::parse_event_t::key && !open_.back().insert(parsed.get<std::string>()).second)
            throw Failure(Findings,
                          place_ + ": \"" + printable(parsed.get<std::string>()) + "\" stands twice",
                          advice_);
        return true;
    }

private:
    std::string place_;
    std::string advice_;
    std::vector<std::set<std::string>> open_;
};

} // namespace

std::string jsonText(const Json& value)
{
    return value.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

Json parseJson(std::string_view text, const std::string& place, const std::string& advice)
{
    MemberWatch watch(place, advice);
    try {
        return Json::parse(text, [&watch](int depth, Json::parse_event_t event, Json& parsed) {
            return watch(depth, event, parsed);
        });
    } catch (const nlohmann::json::exception& error) {
        throw Failure(Findings, place + ": " + reasonOf(error), advice);
    }
}

} // namespace maintenance::kit
