#include "Output.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/json/serialize.hpp>
#include <fmt/core.h>

#include <cstdio>

namespace vfs_tool {

std::string humanSize(std::uint64_t bytes)
{
    static constexpr const char* units[] = {"", "K", "M", "G", "T", "P", "E"};
    if (bytes < 1024)
        return std::to_string(bytes);
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(units)) {
        value /= 1024;
        ++unit;
    }
    return value < 10 ? fmt::format("{:.1f}{}", value, units[unit]) : fmt::format("{:.0f}{}", value, units[unit]);
}

std::string shortTime(const boost::posix_time::ptime& time)
{
    if (time.is_special())
        return "-";
    const auto date = time.date();
    const auto clock = time.time_of_day();
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}", static_cast<int>(date.year()), static_cast<int>(date.month()),
                       static_cast<int>(date.day()), clock.hours(), clock.minutes());
}

std::string isoTime(const boost::posix_time::ptime& time)
{
    if (time.is_special())
        return {};
    return boost::posix_time::to_iso_extended_string(time) + "Z";
}

void printJsonLine(const boost::json::object& object)
{
    const std::string line = boost::json::serialize(object);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw ToolError("cannot write the output", "");
}

void addAttributes(boost::json::object& object, const provider::FileAttributes& attributes)
{
    object["size"] = attributes.getSize();
    object["modified"] = isoTime(attributes.getLastModified());
    object["writable"] = attributes.isWritable();
    object["symlink"] = attributes.isSymlink();
    object["hidden"] = attributes.isHidden();
}

void addAttributes(boost::json::object& object, const provider::FolderAttributes& attributes)
{
    object["modified"] = isoTime(attributes.getLastModified());
    object["writable"] = attributes.isWritable();
    object["symlink"] = attributes.isSymlink();
    object["hidden"] = attributes.isHidden();
}

} // namespace vfs_tool
