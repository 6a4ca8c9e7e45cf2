/// Any bytes as /proc/cpuinfo: the model name is that of the first line that has one, shortened by the table and never cut inside a
/// character.
#include <glib.h>

#include <stdexcept>

#include "expected_machine.h"
#include "property.h"
#include "system_metrics.h"

namespace {

constexpr std::size_t SHORTEST_LINE = std::string_view("model name: ").size();

/// The name that the program shows; empty if it refuses to start, which it does with std::out_of_range and nothing else.
std::optional<std::string> shown_name(const std::string& cpuinfo)
{
    fuzz_machine().remove("/proc/cpuinfo");
    static SystemMetrics metrics;  // on a machine that tells nothing
    fuzz_machine().file("/proc/cpuinfo", cpuinfo);
    try {
        return metrics.read_cpu_name();
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

bool is_utf8(const std::string& text)
{
    return g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
}

/// Whether the one byte that is dropped behind a colon is a whole character.
bool drops_whole_characters(const std::string& cpuinfo)
{
    for (std::size_t colon = cpuinfo.find(':'); colon != std::string::npos; colon = cpuinfo.find(':', colon + 1)) {
        if (colon + 1 < cpuinfo.size() && !g_ascii_isprint(cpuinfo[colon + 1])) {
            return false;
        }
    }
    return true;
}

bool has_prefix(const std::string& name)
{
    return name.starts_with("Intel(R) ") || name.starts_with("AMD Ryzen ") || name.starts_with("AMD EPYC ");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string cpuinfo(data, data + size);
    const std::optional<std::string> name = shown_name(cpuinfo);
    const std::optional<std::string> expected = expected::cpu_name(cpuinfo);
    require_equal(expected.has_value(), name.has_value(), "only a colon at the end of the line keeps the program from starting");
    if (!name) {
        return 0;
    }
    require_equal(*expected, *name, "the name is that of the first line that has one, shortened by the table");
    require(name->find('\n') == std::string::npos, "a name is one line");
    require(*name == "Unknown CPU" || name->size() + SHORTEST_LINE <= size, "a name is shorter than its line");
    require(is_utf8(*name) || !is_utf8(cpuinfo) || !drops_whole_characters(cpuinfo), "shortening cuts no character in two");

    const std::string again = shown_name("model name: " + *name).value();
    require(again.size() <= name->size(), "a shortened name gets no longer");
    require_equal(again == *name, !has_prefix(*name), "a shortened name without a maker's prefix stays as it is");
    return 0;
}
