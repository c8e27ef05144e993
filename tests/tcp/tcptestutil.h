// Helpers for the TCP, connection, listener and start-up suites: packet bytes built by hand and
// socket option probes. The recording callbacks they use are the toolkit's (recording.h).
#ifndef TARN_TESTS_TCP_TCPTESTUTIL_H
#define TARN_TESTS_TCP_TCPTESTUTIL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "recording.h"
#include "testsupport.h"

namespace tcptest {

using testsupport::Bytes;

// A TARN packet built by hand: version 1, the command byte, the little-endian body length, body.
Bytes packet(std::uint8_t command, const Bytes& body);
// A NUL-terminated name as it lies in a body.
Bytes cstr(const std::string& text);
Bytes concat(std::initializer_list<Bytes> parts);
Bytes intValue(std::int32_t value);  // 'I' + 4 bytes little-endian

// The descriptor of this process's TCP socket with that local and peer port, or -1.
int findSocket(std::uint16_t localPort, std::uint16_t peerPort);
bool socketOption(int fd, int level, int option);

// True when nothing is readable on `fd` for `ms` milliseconds.
bool quietFor(int fd, int ms);

// The local and remote port of a connected descriptor.
std::uint16_t localPortOf(int fd);
std::uint16_t peerPortOf(int fd);

}  // namespace tcptest

#endif  // TARN_TESTS_TCP_TCPTESTUTIL_H
