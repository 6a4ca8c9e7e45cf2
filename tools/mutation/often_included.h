/// What most sources include and takes longest to compile: compiled once, so that a mutant takes half the time.
#pragma once

#if __has_include(<gtk/gtk.h>)
#include <gtk/gtk.h>
#endif

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
