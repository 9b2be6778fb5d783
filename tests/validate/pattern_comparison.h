#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace maintenance::test {

/// Writes a text so that every byte of it can be read in a failure message.
inline std::string visible(std::string_view text)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string shown = "\"";
    for (const char c : text.substr(0, 200)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f) {
            shown += c;
        } else {
            shown += "\\x";
            shown += digits[byte >> 4];
            shown += digits[byte & 0x0f];
        }
    }
    return shown + "\" (" + std::to_string(text.size()) + " bytes)";
}

/// Holds a hand-written matcher against the pattern that it stands for, text by text.
class PatternComparison {
public:
    using Matcher = std::function<bool(std::string_view)>;

    PatternComparison(Matcher matcher, const std::string& pattern)
        : matcher_(std::move(matcher)), pattern_(pattern, std::regex::ECMAScript)
    {
    }

    void compare(const std::string& text)
    {
        const bool expected = std::regex_match(text, pattern_);
        ++(expected ? accepted_ : refused_);
        if (matcher_(text) != expected && ++differences_ <= 20)
            ADD_FAILURE() << "the pattern " << (expected ? "accepts " : "refuses ") << visible(text);
    }

    /// Compares every text of up to `longest` pieces taken from `pieces`, between `prefix` and `suffix`.
    void compareAll(const std::vector<std::string>& pieces, std::size_t longest,
                    const std::string& prefix = "", const std::string& suffix = "")
    {
        compare(prefix + suffix);
        if (longest == 0)
            return;
        for (const std::string& piece : pieces)
            compareAll(pieces, longest - 1, prefix + piece, suffix);
    }

    /// Compares `count` texts made from one of `seeds` by a few random edits: bytes replaced, inserted,
    /// removed, swapped or repeated, drawn mostly from `alphabet` and sometimes from all 256 values.
    void compareMutations(const std::vector<std::string>& seeds, std::string_view alphabet, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            std::string text = seeds[below(seeds.size())];
            for (std::size_t edits = below(4); edits > 0; --edits)
                mutate(text, alphabet);
            compare(text);
        }
    }

    /// Compares `count` random texts of up to `longest` bytes.
    void compareRandom(std::string_view alphabet, std::size_t longest, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            std::string text;
            for (std::size_t length = below(longest + 1); length > 0; --length)
                text += drawByte(alphabet);
            compare(text);
        }
    }

    /// Fails unless the texts so far included at least so many of either kind: a comparison that only ever
    /// sees one answer proves nothing.
    void requireBothAnswers(std::size_t accepted, std::size_t refused) const
    {
        EXPECT_GE(accepted_, accepted);
        EXPECT_GE(refused_, refused);
        EXPECT_EQ(differences_, 0u);
    }

private:
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }

    char drawByte(std::string_view alphabet)
    {
        return below(12) == 0 ? static_cast<char>(below(256)) : alphabet[below(alphabet.size())];
    }

    void mutate(std::string& text, std::string_view alphabet)
    {
        const std::size_t at = below(text.size() + 1);
        const auto place = text.begin() + static_cast<std::ptrdiff_t>(at);
        switch (below(5)) {
        case 0:
            text.insert(place, drawByte(alphabet));
            break;
        case 1:
            if (at < text.size())
                text[at] = drawByte(alphabet);
            break;
        case 2:
            text.erase(at, 1 + below(3));
            break;
        case 3:
            if (at + 1 < text.size())
                std::swap(text[at], text[at + 1]);
            break;
        default:
            text.insert(at, text.substr(at, 1 + below(6)));
            break;
        }
    }

    Matcher matcher_;
    std::regex pattern_;
    // A fixed seed: a difference that one run finds is found by every run.
    std::mt19937_64 random_{20231117};
    std::size_t accepted_ = 0;
    std::size_t refused_ = 0;
    std::size_t differences_ = 0;
};

} // namespace maintenance::test
