/// The program's saved files: where they stand, and their text. Main thread only.
#pragma once

#include <string>

/// Where the saved file of that name stands: in "$SNAP_USER_COMMON/config" under Snap, else in "$HOME/.config/Vantric" (in
/// "./.config/Vantric" without HOME). Creates the directory if it can; a directory that can't be created shows as a failed open.
std::string config_file_path(const std::string& file_name);

/// Every byte of the file; empty if it can't be opened. What could be read before an error counts: a directory, for one, can be
/// opened, and fails at the first read.
std::string read_file(const std::string& path);
