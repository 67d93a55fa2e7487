#pragma once

#include <zo/zo_export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <sys/types.h>

/// @file
/// Processes and signals: what the system shows of a process, a child killed as a crash would
/// kill it, and signals turned into bytes for an event loop. Failures are reported as an empty
/// result or -1 with errno set; none throws, and none writes to the disk.
namespace zo::os {

/// A process as the system shows it.
struct Process {
    /// The first NUL- or blank-delimited word of its command line: the program as it was
    /// started, with or without a directory. Empty for a process without a command line (a
    /// zombie, a kernel thread).
    std::string program;
    /// When it started, by the system clock, to the kernel's clock tick.
    std::chrono::system_clock::time_point started;
    /// When it started, in clock ticks since its kernel booted: unlike started, untouched by a
    /// change of the system clock.
    std::uint64_t startTicks = 0;
};

/// The process with this id, as /proc shows it; none when there is none (or it cannot be read).
ZO_EXPORT std::optional<Process> findProcess(pid_t pid);

/// Runs body in a forked child process and kills that child with SIGKILL as soon as body has
/// returned in it, as a crash at that moment would: whatever body wrote stays as it was left.
/// Returns the child's id once it is gone; -1 when it could not be started or did not finish
/// body, with errno set where the system said why.
ZO_EXPORT pid_t runAndKill(const std::function<void()>& body);

/// Whether the descriptor is a terminal, where progress may be drawn.
ZO_EXPORT bool isTerminal(int descriptor);

/// The width in columns of the terminal on the descriptor; none when it is no terminal or
/// tells no width.
ZO_EXPORT std::optional<int> terminalColumns(int descriptor);
/// Ends this process with the signal, as its default action does, once the caller has cleaned
/// up: its handler is reset and the signal unblocked and raised, so that a parent sees the
/// process killed by it (a shell reports 128 plus its number, and a shell loop stops at
/// SIGINT). Exits with status 128 plus its number should the signal not end the process.
[[noreturn]] ZO_EXPORT void endBySignal(int signalNumber);
/// Turns the given signals (SIGINT, SIGTERM, ...) into bytes on a pipe, for an event loop to
/// watch: each delivery writes the signal's number as one byte. Returns the pipe's read end,
/// the same one on every call; -1 on failure, with errno set. The handlers stay for the life
/// of the process.
ZO_EXPORT int signalPipe(std::initializer_list<int> signalNumbers);

} // namespace zo::os
