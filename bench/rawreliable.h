// The limit of a reliable EUDP stream on this machine: raw UDP sockets sending the very datagrams
// that an EUDP transport sends for the same messages, acknowledged the way its reliable receiver
// acknowledges them, under the same window, with no library in between.
//
// On the wire, each message is one datagram: the 8-byte header (version 1, the letters "CMD", the
// sequence number as a 32-bit little-endian word) and the message. Numbers run from 0 to 65534 and
// wrap. The receiver answers a datagram with the number it expects by the header-only "ACK" of that
// number and counts the message as delivered; an older datagram by "ACK" of its word as it came; a
// datagram ahead of the expected number by "NAK" of the expected number, dropping it.
//
// The sender keeps at most `window` datagrams unacknowledged, and an ACK releases every datagram up
// to the number it names. On loss it goes back the way EUDP does: a NAK sends everything again
// from the number it names, and 500 ms without an answer while datagrams are out sends everything
// again from the oldest unacknowledged one. The one liberty taken: the datagrams already on their
// way behind a gap each draw a NAK of the same number, and those are not acted on again (a NAK
// beyond that count still is), so that one loss costs one go-back instead of one per datagram in
// flight. Both sockets ask for the same 4 MiB receive buffer that every EUDP socket asks for.
//
// Threads: the calling thread is the application and the sender at once (it sends while the window
// has room and reads the answers on the same socket); one thread receives. Nothing passes between
// the two but the datagrams and the counts read at the end.
#ifndef TARN_BENCH_RAWRELIABLE_H
#define TARN_BENCH_RAWRELIABLE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common.h"

namespace bench {

// A stream of `count` copies of `message` (offered for at most `timeLimit` seconds), each of which
// is delivered in order before the run ends; `ok` only when every offered message arrived.
StreamRun rawReliableStream(const std::vector<std::uint8_t>& message, std::uint32_t window,
                            std::uint64_t count, double timeLimit);

namespace rawreliable {

const std::size_t kHeaderLength = 8;

// The 8-byte header: version 1, the three letters, `word` little-endian.
void writeHeader(std::uint8_t* at, const char* letters, std::uint32_t word);
// True when the datagram is at least a header with version 1 and these letters; `word` gets its
// value.
bool readHeader(const std::uint8_t* datagram, long length, const char* letters, std::uint32_t& word);

// The receiver's answer to a data datagram carrying `word` while it expects `expected` (which
// advances when the datagram is the one expected).
struct Answer {
    const char* letters;  // "ACK" or "NAK"
    std::uint32_t word;
    bool delivered;
};
Answer answerData(std::uint32_t word, std::int32_t& expected);

// The sender's side of the window, apart from sockets and clocks. Messages are counted by index
// from 0; the number on the wire of index i is i % 65535.
class Window {
public:
    Window(std::uint32_t size, std::uint64_t total) : m_size(size), m_total(total) {}

    bool canSend() const { return m_next < m_total && m_next - m_base < m_size; }
    bool nextIsNew() const { return m_next == m_high; }
    std::uint32_t nextWord() const;
    void sent();
    // No new messages from now on; the ones already offered still go through.
    void stopOffering() { m_total = m_high; }
    bool done() const { return m_base >= m_total; }
    bool allOffered() const { return m_high == m_total; }
    std::uint64_t total() const { return m_total; }
    std::uint64_t base() const { return m_base; }
    std::uint64_t next() const { return m_next; }

    void onAck(std::uint32_t word);
    void onNak(std::uint32_t word);
    // No answer came for the resend time while datagrams were out.
    void onSilence();

    // What loss cost: go-backs on a NAK, go-backs after a silence, datagrams sent again.
    std::uint64_t nakGoBacks() const { return m_nakGoBacks; }
    std::uint64_t silences() const { return m_silences; }
    std::uint64_t resent() const { return m_resent; }

private:
    std::int32_t lastAcked() const;

    const std::uint64_t m_size;
    std::uint64_t m_total;
    std::uint64_t m_base = 0;  // oldest message not yet acknowledged
    std::uint64_t m_next = 0;  // next message to put on the wire
    std::uint64_t m_high = 0;  // messages sent at least once
    std::uint64_t m_wentBackTo = ~static_cast<std::uint64_t>(0);
    std::uint64_t m_staleNaks = 0;  // NAKs still expected from datagrams out before the go-back
    std::uint64_t m_nakGoBacks = 0;
    std::uint64_t m_silences = 0;
    std::uint64_t m_resent = 0;
};

}  // namespace rawreliable

}  // namespace bench

#endif  // TARN_BENCH_RAWRELIABLE_H
