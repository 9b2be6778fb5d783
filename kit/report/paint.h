#pragma once

#include <string>

namespace maintenance::kit {

/// Colours for one stream; a stream that is no terminal, or must stay plain, gets the text unchanged.
struct Paint {
    bool coloured = false;

    std::string bad(const std::string& text) const { return in("31", text); }
    std::string doubtful(const std::string& text) const { return in("33", text); }
    std::string good(const std::string& text) const { return in("32", text); }
    std::string strong(const std::string& text) const { return in("1", text); }
    std::string faint(const std::string& text) const { return in("2", text); }

private:
    std::string in(const char* code, const std::string& text) const
    {
        return coloured ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
    }
};

} // namespace maintenance::kit
