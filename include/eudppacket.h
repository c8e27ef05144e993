// One EUDP datagram: an 8-byte header (version 1, three command letters, a 32-bit little-endian
// value) and up to 1492 bytes of payload, 1500 bytes in all. The datagram's length is the length
// the UDP receive reported; there is no length field and no checksum.
//
// A plain value with a fixed buffer, so that rings of packets are allocated once; copying moves
// only the datagram's own bytes. No locks: a packet belongs to whoever holds it.
#ifndef TARN_EUDPPACKET_H
#define TARN_EUDPPACKET_H

#include <cstdint>

#include <tarn_export.h>

// The value is the index of the command's name in EUDPCommand.
enum EEUDPCommand {
    NOP = 0,  // answer to an empty data datagram (realtime receive)
    ACK = 1,  // sequence number acknowledged; also the answer to CON
    NAK = 2,  // sequence number asked for again
    CON = 3,  // connection request: the client's initial sequence number
    DIS = 4,  // disconnect: the sender's next sequence number
    CMD = 5,  // data: its sequence number
    MOD = 6,  // mode request: a four-byte mode word
    MAK = 7,  // mode answer
    WIN = 8,  // window request: the size asked for
    WAK = 9   // window answer: the size granted
};

// Returned by getCommand for letters that name no command; never sent.
const int EUDP_UNKNOWN_COMMAND = 10;

// The three-letter names, in EEUDPCommand order.
extern TARN_EXPORT const char* const EUDPCommand[10];

class TARN_EXPORT EUDPPacket {
public:
    static const unsigned int HEADER_LENGTH = 8;
    static const unsigned int MAX_PAYLOAD = 1492;
    static const unsigned int MAX_LENGTH = 1500;
    static const std::uint8_t VERSION = 1;
    static const unsigned int VALUE_OFFSET = 4;

    EUDPPacket();  // NOP, value 0, no payload
    explicit EUDPPacket(EEUDPCommand command);
    EUDPPacket(const EUDPPacket& other);
    EUDPPacket& operator=(const EUDPPacket& other);

    void setCommand(EEUDPCommand command);
    EEUDPCommand getCommand() const;  // EUDP_UNKNOWN_COMMAND (10) when no name matches

    // The header's 32-bit value (bytes 4 to 7, little-endian).
    std::uint32_t getValue() const;
    void setValue(std::uint32_t value);

    // Stores `length` as m_length, then checks version, header length and command letters.
    bool validatePacket(std::uint32_t length) const;

    // Copies the payload; more than 1492 bytes is refused with an error line, packet unchanged.
    void setData(const unsigned char* data, unsigned int length);

    std::uint8_t* m_pHeader;  // the start of this packet's own m_buffer
    std::uint8_t m_buffer[MAX_LENGTH];
    mutable std::uint32_t m_length;  // header included; 8 after construction
};

#endif  // TARN_EUDPPACKET_H
