// What the library's callbacks tell the tool, and how it reaches the main thread.
//
// Callbacks run on each connection's receive thread and on the listener's thread. They do nothing
// but copy what they were told into an Event and push it onto the EventQueue; the main thread pops
// events, prints them and does whatever follows (sending a state, deleting a closed connection).
// That keeps deletion out of callbacks and gives one place where output order is decided.
//
// EventGate holds back one connection's events until its eConnected has been seen, because the
// library may deliver the first command (on the receive thread) before the connected status (on the
// thread that started the connection); the tool prints them in the order they happened for the peer.
#ifndef TARN_TOOLS_EVENTS_H
#define TARN_TOOLS_EVENTS_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <parameterlist.h>

#include "values.h"

namespace tarncli {

enum class EventKind { Connected, Disconnected, Subscribe, Unsubscribe, Call, Update, Trigger };

// Why a connection ended: this side disconnected it (quit, end of input, a signal, the server
// stopping), the peer closed it, or the peer stopped answering and the link was given up (EUDP's
// keep-alive went unanswered for 10 s).
enum class EndReason { Local, Closed, Lost };

struct Event {
    EventKind kind = EventKind::Connected;
    int source = 0;                    // connection number on a server, session number on a client
    std::string name;                  // state, trigger or function name
    ParameterValue value;              // Update and Trigger
    std::vector<NamedValue> params;    // Call, in name order
    std::string peer;                  // Connected: "address:port"
    EndReason end = EndReason::Local;  // Disconnected
};

// A queue that any thread may push to. Its descriptor becomes readable when events are waiting, so
// the main thread can wait for events, input and signals in one poll().
class EventQueue {
public:
    EventQueue();
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    void push(const Event& event);
    // Takes the oldest event; false when there is none.
    bool pop(Event& event);
    // Waits up to `timeoutMs` for an event that `match` accepts and takes it; earlier events that
    // do not match stay queued in their order.
    bool waitFor(const std::function<bool(const Event&)>& match, Event& event, int timeoutMs);
    std::size_t size() const;

    int fd() const { return m_pipe[0]; }
    // Empties the wake-up pipe; call before popping what woke the poll.
    void drainWakeups();

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<Event> m_events;
    int m_pipe[2];
};

// Holds one connection's events until it is known to be connected, then passes them on in order.
class EventGate {
public:
    explicit EventGate(EventQueue& queue) : m_queue(queue) {}
    void push(const Event& event);
    // Pushes `connected`, then everything held back; later events pass straight through.
    void open(const Event& connected);
    bool isOpen() const;

private:
    EventQueue& m_queue;
    mutable std::mutex m_mutex;
    bool m_bOpen = false;
    std::vector<Event> m_held;
};

// SIGINT and SIGTERM become readable bytes on a pipe (and the flag below), so that every command
// shuts down in order: connections disconnected and deleted, the listener stopped.
void installSignalPipe();
int signalFd();
bool signalReceived();

// Milliseconds of the monotonic clock.
std::int64_t monotonicMs();

// The main thread's wait: for an event, a line of standard input, a signal or a deadline.
class MainLoop {
public:
    enum class Wake { Event, Line, EndOfInput, Signal, Deadline };

    // `readInput` false: standard input is not read at all.
    MainLoop(EventQueue& queue, bool readInput);

    // Blocks until something happens; `deadlineMs` is a monotonicMs() value, or -1 for none.
    // Events come first, then complete input lines; end of input is reported once.
    Wake next(Event& event, std::string& line, std::int64_t deadlineMs);

    // Stops reading standard input (after end of input, or when the command no longer wants it).
    void stopReading() { m_bReading = false; }

private:
    bool takeLine(std::string& line);

    EventQueue& m_queue;
    bool m_bReading;
    bool m_bEofPending = false;
    std::string m_buffer;
};

}  // namespace tarncli

#endif  // TARN_TOOLS_EVENTS_H
