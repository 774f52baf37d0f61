#pragma once

#include <optional>
#include <string>
#include <vector>

/// The files of a run, kept in memory: what the C++ library opens by name is looked up
/// here. Other files are opened as ever while no run is under way.
namespace override_file {

/// A run begins: from now on nothing can be opened but content, at path; not even that
/// where content is missing.
void liesAt(const std::string& path, const std::optional<std::string>& content);

/// The run is over; what it tried to open, as "MODE PATH".
std::vector<std::string> opened();

}  // namespace override_file
