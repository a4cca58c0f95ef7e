#pragma once

// Client paths are names inside a space, never file-system paths; still, every path is checked
// here before it reaches the store so that no spelling can address something outside its space.

#include "core/KXServerTypes.h"

#include <string>
#include <vector>

namespace KXServerPath {

constexpr size_t kMaxPathBytes = 1024;
constexpr size_t kMaxComponentBytes = 255;

// Validates `raw` (already percent-decoded once) and writes the normalised form to `out`:
// "" and "/" are the root, a missing leading slash is added. Refuses ".", "..", empty
// components, NUL, backslash and percent-encoded forms of them (403 "forbidden"), and paths over
// the length limits (400 "path_too_long").
ServerError normalise(const std::string& raw, std::string* out);

// Percent-decodes one component of a URL path. A decoded '/' is refused by normalise later, so a
// "%2F" can never act as a separator.
std::string decodeComponent(const std::string& raw, bool* ok);

std::string parentOf(const std::string& path); // "/a/b" -> "/a", "/a" -> "/"
std::string nameOf(const std::string& path);   // "/a/b" -> "b"
std::string join(const std::string& folder, const std::string& child);
bool isInside(const std::string& root, const std::string& path); // root itself counts
// The folders above `path`, outermost first, without the root: "/a/b/c" -> {"/a", "/a/b"}.
std::vector<std::string> ancestors(const std::string& path);

} // namespace KXServerPath
