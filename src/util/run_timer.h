#pragma once
// Run statistics: the memory report and a wall-clock timer.
#include <chrono>
#include <iosfwd>
#include <string>
#include <string_view>

namespace krel {

// Writes the Vm* lines of /proc/<pid>/status to standard output (never to the
// log). Silent where the file does not exist.
void vmstat();
// The same report, written to the given stream; the proc file can be named
// for tests.
void vmstat(std::ostream& unit, const std::string& status_file);

// Times a long operation: start() logs its message (if any), stop() logs the
// message with the elapsed wall-clock seconds.
class wtime {
public:
    wtime() { start(); }
    void start(std::string_view message = {});
    double elapsed() const;
    void stop(std::string_view message) const;

private:
    std::chrono::steady_clock::time_point start_;
};

}  // namespace krel
