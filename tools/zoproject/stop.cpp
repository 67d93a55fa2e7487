#include "stop.h"

#include <zo/process.h>

#include <QFile>

#include <csignal>

namespace zo::cli {
namespace {

// The read end of libzo's signal pipe, which does not block.
QFile& signalPipe()
{
    static QFile pipe;
    return pipe;
}

int received = 0;

} // namespace

bool catchStopSignals()
{
    if (signalPipe().isOpen())
        return true;
    const int pipe = zo::os::signalPipe({ SIGINT, SIGTERM, SIGHUP, SIGPIPE });
    return pipe >= 0 && signalPipe().open(pipe, QIODevice::ReadOnly | QIODevice::Unbuffered);
}

bool stopRequested()
{
    char signalNumber = 0;
    if (received == 0 && signalPipe().isOpen() && signalPipe().read(&signalNumber, 1) == 1)
        received = signalNumber;
    return received != 0;
}

int stopSignal()
{
    stopRequested();
    return received;
}

} // namespace zo::cli
