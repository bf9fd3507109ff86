// The run log: one process-wide text stream, "log.txt" in the output folder.
//
// A line is PREFIX(component:line): message. The component is the last part of the source path that the
// caller gives. Each line is formed first, then written, ended and flushed under one lock, so lines stay
// whole. Failing to open, write, flush or close the log is never reported and stops nothing. openRunLog and
// closeRunLog take no lock: they are called while no worker runs.
#pragma once

#include "src/runlog_lines.h"

#include <cstdint>
#include <string>

namespace Tavrin::GaussionSplat {

// Open path for writing and truncate it. It replaces the stream that was open before.
void openRunLog(std::string path);

// Write one INFO line to the file. It is dropped when no log has ever been opened in this process.
void logInfo(std::string message, std::string sourcePath, std::int32_t line);

// Write a line of the table; rest follows its message.
void logInfo(const RunLogLine& line, const std::string& rest = {});

// The text of that line, without its line end.
std::string infoLine(const RunLogLine& line, const std::string& rest = {});

// Write one ERROR line to standard output and, when a log has been opened, to the file.
void logError(std::string message, std::string sourcePath, std::int32_t line);

// Close the file, if one is open. Later lines are lost silently until the next openRunLog.
void closeRunLog();

} // namespace Tavrin::GaussionSplat
