/// Both functions swallow what goes wrong: it shows as an empty text, or when the file is opened for writing.
#include "saved_file.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

std::string config_file_path(const std::string& file_name)
{
    std::string directory;
    if (const char* snap = std::getenv("SNAP_USER_COMMON")) {
        directory = std::string(snap) + "/config";
    } else {
        const char* home = std::getenv("HOME");
        directory = std::string(home ? home : ".") + "/.config/Vantric";
    }
    try {
        std::filesystem::create_directories(directory);
    } catch (...) {
        // a read-only or missing home: the caller's open fails, and with it only this one load or save
    }
    return directory + "/" + file_name;
}

std::string read_file(const std::string& path)
{
    const std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();  // turns an exception of the buffer into a state bit, which an istreambuf_iterator would let out
    return text.str();
}
