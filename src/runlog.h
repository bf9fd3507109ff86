// The run log: one process-wide text stream, "log.txt" in the output folder.
//
// A line is PREFIX(component:line): message, where the component is the last part of the source path that the
// caller gives. Lines are written whole: each is formed first and then written, ended and flushed under one
// lock. Failing to open, write, flush or close the log is never reported and stops nothing. openRunLog and
// closeRunLog take no lock: they are called while no worker runs.
#pragma once

#include "src/runlog_lines.h"

#include <cstdint>
#include <string>

namespace Tavrin::GaussionSplat {

// Open path for writing, truncating it, in place of the stream that was open before.
void openRunLog(std::string path);

// One INFO line to the file; dropped when no log has ever been opened in this process.
void logInfo(std::string message, std::string sourcePath, std::int32_t line);

// The same for a line of the table, whose message goes on with rest.
void logInfo(const RunLogLine& line, const std::string& rest = {});

// The text of that line, without its end.
std::string infoLine(const RunLogLine& line, const std::string& rest = {});

// One ERROR line to standard output and, when a log has been opened, to the file.
void logError(std::string message, std::string sourcePath, std::int32_t line);

// Close the file, if one is open. Later lines are lost silently until the next openRunLog.
void closeRunLog();

} // namespace Tavrin::GaussionSplat
