#include "lossylink.h"

#include <string>

namespace eudptest {

tarnrelay::ImpairOptions LossyLink::impairOptions(const Options& options) {
    tarnrelay::ImpairOptions impair;
    impair.seed = options.seed;
    impair.loss = options.drop;
    impair.duplicate = options.duplicate;
    impair.reorder = options.reorder;
    impair.dataOnly = true;
    return impair;
}

LossyLink::LossyLink(std::uint16_t serverPort, const Options& options) : m_relay(impairOptions(options)) {
    std::string error;
    // A relay that cannot bind leaves port() at 0, and the test's connect fails visibly.
    if (m_relay.open("127.0.0.1", 0, "127.0.0.1", serverPort, error)) {
        m_relay.start();
    }
}

}  // namespace eudptest
