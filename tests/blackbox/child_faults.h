// Steps of the host that restrict its process or make the system fail (Linux).
#pragma once

#include <functional>
#include <string>

namespace child {

// Carries out one of these steps; false for any other name. Throws std::runtime_error when a step fails.
//
//   file-size N            limit the size of files to N bytes
//   ignore-signal N        ignore the signal of this number
//   without-rights         give up root's rights, so that permissions count
//   without-environment    remove every environment variable, then setlocale(LC_ALL, "")
//   close N                close the file descriptor N
//   broken-pipe            make standard output a pipe that nobody reads
//   lost-folder PATH       make the folder PATH, make it the working folder, and remove it
//   fork                   go on in a child process, whose end becomes this process's own
//   vanish MOMENT          remove the input at this moment of a conversion
//   cut-MOMENT N           cut the input to N bytes at this moment of a conversion
//   refuse-file NAME       let no file of this name be opened
//
// The moments: "opening" and "opened", before and after the header check opens the input; "header" and
// "scan", before the header reader and the first thread of the scan open it; "chunking", before the run log
// is opened.
bool faultStep(const std::string& name, const std::string& value, const std::string& input);

// Calls the function on a thread whose stack has this many bytes, and waits for its end.
void onStack(std::size_t bytes, const std::function<void()>& call);

// True if a file of this name is mapped into the process.
bool isMapped(const std::string& path);

} // namespace child
