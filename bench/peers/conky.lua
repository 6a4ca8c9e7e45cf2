-- A graph for each CPU with its load above it, in about as many columns as rows.

local GRAPH_WIDTH, GRAPH_HEIGHT, GAP = 52, 28, 6

local function count_cpus()
    local count = 0
    for line in io.lines("/proc/stat") do
        if line:match("^cpu%d") then
            count = count + 1
        end
    end
    return count
end

local cpus = count_cpus()
local columns = math.min(math.max(2, math.floor(math.sqrt(cpus))), 16)

local rows = {}
for first = 1, cpus, columns do
    local labels, graphs = "", ""
    for cpu = first, math.min(first + columns - 1, cpus) do
        local place = (cpu - first) * (GRAPH_WIDTH + GAP)
        labels = labels .. string.format("${goto %d}${cpu cpu%d}%%", place, cpu)
        graphs = graphs .. string.format("${goto %d}${cpugraph cpu%d %d,%d}", place, cpu, GRAPH_HEIGHT, GRAPH_WIDTH)
    end
    rows[#rows + 1] = labels .. "\n" .. graphs
end

conky.config = {
    out_to_x = true,
    own_window = true,
    own_window_type = "normal",
    double_buffer = true,
    minimum_width = columns * (GRAPH_WIDTH + GAP),
    update_interval = 1,
    use_xft = true,
    font = "DejaVu Sans:size=8",
    max_user_text = 1048576,
    text_buffer_size = 65536,
}
conky.text = table.concat(rows, "\n")
