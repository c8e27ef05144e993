// Fuzzes an EUDP transport's handling of what reaches it: arbitrary datagrams, and sequences of
// them mixed with the passing of time, sends, reads, negotiation requests and closes, in every
// state of the link. The transport is driven (no threads, sockets or real time).
//
// Input: one byte of set-up, one byte of starting numbers, then operations, each an operation byte
// followed by its arguments, until the input ends (a short argument takes what is left).
// Set-up byte: bits 0-1 the end (0 accepted server, 1 accepted hardened server, 2 client still
// waiting for the answer to CON, 3 connected client); bit 2 this end sends reliably; bit 3 it
// receives reliably; bits 4-5 the send window (10, 0, 1, 999); bit 6 the numbers start near the
// wrap; bit 7 restricted modes (send realtime only, receive reliable only).
// After every operation each datagram sent is checked: a whole header with version 1 and a known
// command, a payload only on CMD, never more than 1500 bytes, never to port 0.
#include <eudpdriver.h>
#include <eudptransport.h>

#include <logging/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

const std::uint16_t CLIENT_PORT = 40000;
const std::uint16_t LISTEN_PORT = 7000;
const std::uint16_t SERVER_PORT = 7001;

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_pos >= m_size; }
    std::uint8_t byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    std::uint32_t word(int bytes) {
        std::uint32_t value = 0;
        for (int i = 0; i < bytes; ++i) {
            value |= static_cast<std::uint32_t>(byte()) << (8 * i);
        }
        return value;
    }
    // Up to `count` bytes as they stand.
    const std::uint8_t* take(std::size_t count, std::size_t& taken) {
        taken = std::min(count, m_size - std::min(m_pos, m_size));
        const std::uint8_t* at = m_data + std::min(m_pos, m_size);
        m_pos += taken;
        return at;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

const char* const NAMES[] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};

std::vector<std::uint8_t> datagram(unsigned int command, std::uint32_t value, const std::uint8_t* payload,
                                   std::size_t length) {
    std::vector<std::uint8_t> out(8 + length);
    out[0] = 1;
    std::memcpy(&out[1], NAMES[command % 10], 3);
    for (int i = 0; i < 4; ++i) {
        out[4 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    if (length > 0) {
        std::memcpy(&out[8], payload, length);
    }
    return out;
}

std::uint32_t modeWord(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3) {
    return b0 | (static_cast<std::uint32_t>(b1) << 8) | (static_cast<std::uint32_t>(b2) << 16) |
           (static_cast<std::uint32_t>(b3) << 24);
}

EConnMode modeOf(std::uint8_t selector) {
    switch (selector % 4) {
        case 0:
            return eRealtime;
        case 1:
            return eReliable;
        case 2:
            return static_cast<EConnMode>('D');
        default:
            return static_cast<EConnMode>(selector);
    }
}

void checkSent(EUDPDriver& driver) {
    for (const EUDPDriver::Datagram& out : driver.takeSent()) {
        check(out.bytes.size() >= 8 && out.bytes.size() <= 1500);
        check(out.bytes[0] == 1);
        check(out.port != 0);
        bool known = false;
        for (unsigned int i = 0; i < 10; ++i) {
            known = known || std::memcmp(&out.bytes[1], NAMES[i], 3) == 0;
        }
        check(known);
        check(std::memcmp(&out.bytes[1], "CMD", 3) == 0 || out.bytes.size() == 8);
    }
}

void deliver(EUDPDriver& driver, const std::vector<std::uint8_t>& bytes, std::uint16_t fromPort = 0) {
    driver.receive(bytes.data(), bytes.size(), fromPort);
}

// The end the set-up byte names, in the modes and with the window it names.
bool setUp(EUDPDriver& driver, std::uint8_t setup, std::uint8_t numbers) {
    EUDPTransport& transport = driver.transport();
    const std::int32_t start = (setup & 0x40) != 0 ? 65535 - 1 - numbers : numbers;
    if ((setup & 0x80) != 0) {
        transport.allowSendMode(true, false);
        transport.allowReceiveMode(false, true);
    }
    const int end = setup & 3;
    if (end == 1) {
        transport.setHardening(EUDPHardening::on());
    }
    driver.startNumbersAt(start);
    if (end <= 1) {
        driver.accept(CLIENT_PORT, static_cast<std::uint32_t>(start));
    } else {
        driver.beginConnect(CLIENT_PORT, LISTEN_PORT);
        if (end == 2) {
            return false;  // waiting for the answer: no modes or window to ask for yet
        }
        deliver(driver, datagram(1, static_cast<std::uint32_t>(start), nullptr, 0), SERVER_PORT);
        check(driver.finishConnect());
    }
    if ((setup & 4) != 0) {
        deliver(driver, datagram(6, modeWord('R', 'D', 'D', 'D'), nullptr, 0));
    }
    if ((setup & 8) != 0) {
        deliver(driver, datagram(6, modeWord('D', 'D', 'R', 'D'), nullptr, 0));
    }
    static const std::uint32_t WINDOWS[] = {10, 0, 1, 999};
    const std::uint32_t window = WINDOWS[(setup >> 4) & 3];
    if (window != 10) {
        deliver(driver, datagram(8, window, nullptr, 0));
    }
    return true;
}

void operate(EUDPDriver& driver, Input& input, bool hardened) {
    static const std::uint8_t FILLER[1500] = {};
    const std::uint8_t op = input.byte();
    switch (op % 12) {
        case 0: {  // a datagram as it stands, up to 2047 bytes (the receive takes at most 1500)
            std::size_t taken = 0;
            const std::size_t length = input.byte() | (static_cast<std::size_t>((op >> 4) & 7) << 8);
            const std::uint8_t* bytes = input.take(length, taken);
            driver.receive(bytes, taken);
            break;
        }
        case 1: {  // a well-formed datagram: command, value, a short payload
            const unsigned int command = input.byte();
            const std::uint32_t value = input.word(4);
            std::size_t taken = 0;
            const std::uint8_t* payload = input.take(op >> 4, taken);
            deliver(driver, datagram(command, value, payload, taken));
            break;
        }
        case 2:
            driver.advance(static_cast<std::int64_t>(input.word(2)) * 125);  // up to 8 s
            break;
        case 3: {
            const std::uint32_t length = input.byte() * 6u;  // up to 1530: over the 1492 limit too
            driver.sendData(FILLER, length);
            break;
        }
        case 4: {
            std::uint8_t buffer[1500];
            const int received = driver.receiveData(buffer, input.byte() * 6u);
            check(received >= -2 && received <= 1492);
            break;
        }
        case 5:
            // A failed receive sleeps a millisecond when hardened; an empty one is the same path.
            driver.receiveFailure((op & 0x10) != 0 && !hardened ? -1 : 0);
            break;
        case 6: {
            const std::uint8_t which = input.byte();
            if (which % 3 == 0) {
                driver.setSendMode(modeOf(which / 3));
            } else if (which % 3 == 1) {
                driver.setReceiveMode(modeOf(which / 3));
            } else {
                driver.setWindowSize(input.word(2));
            }
            break;
        }
        case 7:
            driver.disconnect();
            break;
        case 8: {  // from another port, or another address
            const std::uint16_t port = static_cast<std::uint16_t>(input.word(2));
            std::size_t taken = 0;
            const std::uint8_t* bytes = input.take(input.byte(), taken);
            if ((op & 0x10) != 0) {
                driver.receiveFrom(bytes, taken, sal::HostAddress("127.0.0.2"), port);
            } else {
                driver.receive(bytes, taken, port);
            }
            break;
        }
        case 9:
            driver.finishConnect();
            break;
        case 10:
            driver.quietTimers();
            break;
        default:
            driver.advance(10000000);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Lines are expected by the thousand; they are formatted, and kept off the fuzzer's output.
    Corvane::Utilities::Logging::LogManager& manager = Corvane::Utilities::Logging::LogManager::getInstance();
    manager.setSink([](Corvane::Utilities::Logging::ELogLevel, const std::string&, const std::string&) {});
    manager.setLevel(Corvane::Utilities::Logging::eDebug);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t setup = input.byte();
    const std::uint8_t numbers = input.byte();
    std::unique_ptr<EUDPDriver> driver(new EUDPDriver);
    setUp(*driver, setup, numbers);
    checkSent(*driver);
    const bool hardened = (setup & 3) == 1;
    for (int ops = 0; ops < 256 && !input.empty(); ++ops) {
        operate(*driver, input, hardened);
        checkSent(*driver);
    }
    return 0;
}
