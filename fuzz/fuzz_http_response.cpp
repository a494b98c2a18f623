// Whatever listens on a configured port may answer anything. The reader must reach the same verdict
// however the bytes are cut into reads, and never hand on more body than it was sent.
#include "FuzzInput.h"
#include "core/HttpResponseReader.h"

namespace {

struct Outcome {
    bool malformed = false;
    bool complete = false;
    int status = 0;
    QByteArray body;
    bool operator==(const Outcome &) const = default;
};

// Feeds `response` in reads of at most `stride` bytes, stopping as the client does, then closes.
Outcome read(const QByteArray &response, qsizetype stride) {
    HttpResponseReader reader;
    for (qsizetype at = 0; at < response.size() && !reader.done() && !reader.malformed(); at += stride)
        reader.feed(response.mid(at, stride));
    Outcome outcome;
    outcome.malformed = reader.malformed();
    outcome.complete = !outcome.malformed && (reader.done() || reader.finishAtClose());
    if (outcome.complete) {
        outcome.status = reader.status();
        outcome.body = reader.takeBody();
    }
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    // The first byte chooses how the rest is cut up.
    const qsizetype stride = 1 + data[0] % 17;
    const QByteArray response = FuzzInput::bytes(data + 1, size - 1);
    const Outcome whole = read(response, qMax<qsizetype>(response.size(), 1));
    FUZZ_REQUIRE(read(response, stride) == whole);
    FUZZ_REQUIRE(whole.body.size() <= response.size());
    if (whole.complete)
        FUZZ_REQUIRE(whole.status >= 100 && whole.status <= 999);
    return 0;
}
