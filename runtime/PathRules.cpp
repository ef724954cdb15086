// Path rules: lexical standardising and symbolic-link resolution.
#include "PathRules.h"

#include <climits>
#include <cstdlib>
#include <vector>

namespace hl {

bool isAbsolutePath(const std::string& path) {
    return !path.empty() && (path.front() == '/' || path.front() == '~');
}

std::string standardizedPath(const std::string& path) {
    if (path.empty()) return path;
    const bool absolute = path.front() == '/';
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(start, end - start);
        if (part.empty() || part == ".") {
            // nothing
        } else if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(part);
            }
        } else {
            parts.push_back(std::move(part));
        }
        start = end + 1;
    }
    std::string out = absolute ? "/" : "";
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += '/';
        out += parts[i];
    }
    if (out.empty()) out = absolute ? "/" : ".";
    return out;
}

std::string resolvingSymlinksInPath(const std::string& path) {
    if (path.empty() || path.front() != '/') return path;
    const std::string standard = standardizedPath(path);
    // Find the longest prefix that realpath accepts, then append the remainder.
    std::string prefix = standard;
    std::string rest;
    while (true) {
        char buffer[PATH_MAX];
        if (::realpath(prefix.c_str(), buffer) != nullptr) {
            std::string resolved = buffer;
            if (!rest.empty()) resolved += (resolved == "/" ? "" : "/") + rest;
            return resolved;
        }
        const auto slash = prefix.find_last_of('/');
        if (slash == std::string::npos || prefix == "/") return standard;
        const std::string last = prefix.substr(slash + 1);
        rest = rest.empty() ? last : last + "/" + rest;
        prefix = slash == 0 ? "/" : prefix.substr(0, slash);
    }
}

}  // namespace hl
