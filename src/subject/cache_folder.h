// The user's cache folder for what the set-up fetches (the subject model, and the runtime that
// runs it faster): $XDG_CACHE_HOME/qxiveilon31, else $HOME/.cache/qxiveilon31; empty when
// neither variable is set. Shared by the library and the network's module.
#pragma once

#include <cstdlib>
#include <string>

namespace qx::subject {

inline std::string cacheFolder() {
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg)
        return std::string(xdg) + "/qxiveilon31";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.cache/qxiveilon31";
    return {};
}

}  // namespace qx::subject
