#pragma once

// Formatting for people (sizes, times, the tree drawing) and for scripts (one JSON object per line).

#include "Tool.hpp"

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <string>

namespace vfs_tool {

// "1.5K", "23M", "512" (bytes): powers of 1024, one decimal below 10.
std::string humanSize(std::uint64_t bytes);
// "2026-11-21 18:57" (UTC); "-" for a time the storage does not know.
std::string shortTime(const boost::posix_time::ptime& time);
// ISO 8601 with microseconds and "Z"; empty for a time the storage does not know.
std::string isoTime(const boost::posix_time::ptime& time);
// Writes `object` as one line on stdout and flushes it, so that a reader of a pipe sees it at once.
void printJsonLine(const boost::json::object& object);
// The attributes every listing shows, as JSON members.
void addAttributes(boost::json::object& object, const provider::FileAttributes& attributes);
void addAttributes(boost::json::object& object, const provider::FolderAttributes& attributes);

} // namespace vfs_tool
