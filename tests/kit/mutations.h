#pragma once

#include "support/scene.h"

#include <random>
#include <string>
#include <vector>

/// Texts that are almost right, made from right ones.
namespace maintenance::rehearsed {

/// Changes texts at random, the same way in every run.
class Mutator {
public:
    explicit Mutator(std::uint32_t seed) : random_(seed) {}

    /// A text with one to three changes; sometimes none.
    std::string mutate(std::string text)
    {
        for (std::size_t changes = below(4); changes > 0; --changes)
            text = changed(std::move(text));
        return text;
    }

    std::size_t below(std::size_t limit)
    {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }

    template <typename Value> const Value& pick(const std::vector<Value>& values)
    {
        return values[below(values.size())];
    }

private:
    std::string changed(std::string text)
    {
        switch (below(10)) {
        case 0:
            return changedByte(std::move(text));
        case 1:
            return text.substr(0, below(text.size() + 1));
        case 2:
        case 3:
        case 4:
            return changedLines(text);
        default:
            return changedField(std::move(text));
        }
    }

    std::string changedByte(std::string text)
    {
        if (text.empty())
            return text;
        const std::size_t at = below(text.size());
        switch (below(3)) {
        case 0:
            text[at] = static_cast<char>(below(256));
            return text;
        case 1:
            return text.erase(at, 1);
        default:
            return text.insert(at, 1, pick<char>({'\t', '\n', '=', '/', '.', '0', 'A', ' '}));
        }
    }

    /// Deletes, doubles, swaps or inserts a line.
    std::string changedLines(const std::string& text)
    {
        std::vector<std::string> lines;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = std::min(text.find('\n', start), text.size() - 1);
            lines.push_back(text.substr(start, end - start + 1));
            start = end + 1;
        }
        if (lines.empty())
            return text;
        const std::size_t at = below(lines.size());
        const auto place = lines.begin() + static_cast<std::ptrdiff_t>(at);
        switch (below(5)) {
        case 0:
            lines.erase(place);
            break;
        case 1:
            lines.insert(place, std::string(lines[at]));
            break;
        case 2:
            lines.insert(place, pick(extraLines_));
            break;
        default:
            std::swap(lines[at], lines[below(2) == 0 ? below(lines.size()) : (at + 1) % lines.size()]);
        }
        std::string joined;
        for (const std::string& line : lines)
            joined += line;
        return joined;
    }

    /// Replaces what stands between two separators, here or wherever the same stands.
    std::string changedField(std::string text)
    {
        if (text.empty())
            return text;
        const std::string separators = "\t\n=";
        const std::size_t at = below(text.size());
        const std::size_t before = text.find_last_of(separators, at);
        const std::size_t start = before == std::string::npos ? 0 : before + 1;
        const std::size_t end = std::min(text.find_first_of(separators, start), text.size());
        const std::string old = text.substr(start, end - start);
        const std::string fresh = below(4) == 0 ? fieldOfTheSameText(text) : pick(fields_);
        if (old.empty() || below(3) != 0)
            return text.replace(start, end - start, fresh);
        for (std::size_t found = text.find(old); found != std::string::npos;
             found = text.find(old, found + fresh.size()))
            text.replace(found, old.size(), fresh);
        return text;
    }

    std::string fieldOfTheSameText(const std::string& text)
    {
        const std::size_t before = text.find_last_of("\t\n=", below(text.size()));
        const std::size_t start = before == std::string::npos ? 0 : before + 1;
        return text.substr(start, std::min(text.find_first_of("\t\n=", start), text.size()) - start);
    }

    std::mt19937 random_;
    std::vector<std::string> fields_ = {
        "",
        "-",
        "0",
        "1",
        "2",
        "7",
        "9",
        "01",
        "1.0",
        "1.2.3.4",
        "1.2.3.4.5",
        "18446744073709551616",
        "1000000000",
        "common",
        "alpha",
        "beta",
        "gamma",
        "Alpha",
        "a--b",
        "-a",
        "none",
        "user",
        "system",
        "adopt",
        "replace",
        "com.tamarindpelican.pkg.common",
        "com.tamarindpelican.pkg.alpha.vst3",
        "com.tamarindpelican.pkg.gamma.au",
        "com.tamarindpelican.pkg.common.vst3",
        "com.tamarindpelican.pkg.alpha.component",
        std::string(64, 'a'),
        std::string(64, 'A'),
        std::string(63, '0'),
        vst3Path("alpha", "Contents/zzz"),
        auPath("alpha", "Contents/zzz"),
        auPath("alpha", "Contents/VST3/x"),
        vst3Path("alpha", "Contents/./x"),
        vst3Path("beta", ""),
        "/etc/passwd",
        "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/Foreign.vst3/x",
        "Library/Audio/Plug-Ins/Components/Rookery Drum.component/x",
        "Library/Application Support/Tamarind Pelican/TamarindPelicanUpdater",
        "Library/Application Support/Tamarind Pelican/TamarindPelicanMaintenance",
        "Library/Application Support/Tamarind Pelican/Other",
        "a\tb",
        "a=b",
        std::string(129, 'a'),
        std::string(9000, 'x')};
    std::vector<std::string> extraLines_ = {"\n",
                                            "=\n",
                                            "key=value\n",
                                            "nonsense\n",
                                            "schema=x\n",
                                            "product=zeta\t1\n",
                                            "product=zeta\t-\t1\n",
                                            "\r\n",
                                            "target=\n",
                                            "component=\n"};
};

/// Plans with one to three products and different files.
inline std::vector<std::string> rightPlans()
{
    Plugin many = plugin("alpha", "1.0");
    for (int i = 0; i < 20; ++i)
        many.withVst3File("Contents/Resources/" + std::to_string(i), "")
            .withAuFile("Contents/" + std::to_string(i), "");
    return {planText({plugin("alpha", "1.0")}), planText({plugin("alpha", "1.0"), plugin("beta", "2.0.1")}),
            planText({plugin("alpha", "7"), plugin("beta", "7"), plugin("gamma", "0")}), planText({many}),
            planText({plugin("common", "7"), plugin("alpha", "1")})};
}

/// Descriptors of every kind for a scope.
inline std::vector<std::string> rightDescriptors(const std::string& scope)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Plugin beta = plugin("beta", "2");
    return {Work(scope).brings(alpha).text(), Work(scope).from(oppositeOf(scope)).brings(alpha, "0.9").text(),
            Work(scope).deciding("adopt").brings(alpha).brings(beta, "2").text(),
            Work(scope).deciding("replace").brings(beta, "1").with(commonPackage("123456789")).text()};
}

} // namespace maintenance::rehearsed
