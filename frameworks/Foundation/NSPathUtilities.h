#pragma once

// Where the user's files are.

#include <string>
#include <string_view>

/// The user's home directory: $HOME when it is set to an absolute path, else the entry of the user database, else "/".
std::string NSHomeDirectory();

// -[NSString stringByAppendingPathComponent:]
/// Joins with exactly one slash in between; an empty part adds nothing.
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);

// -[NSString lastPathComponent]
/// The part after the last slash; trailing slashes are ignored. "/" for the root.
std::string_view lastPathComponent(std::string_view path);
