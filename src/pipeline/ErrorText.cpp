#include "pipeline/ErrorText.h"

#include "core/LoopbackHttp.h"
#include "core/QuorvaneError.h"
#include "speech/WavDecoder.h"

QString describeError(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const WavDecoder::DecodeError &e) {
        return e.errorDescription();
    } catch (const QuorvaneError &e) {
        return e.message();
    } catch (const LoopbackHttp::TransportError &e) {
        return QStringLiteral("no answer from the local server: ") + e.text();
    } catch (const LoopbackHttp::ParseError &e) {
        return QStringLiteral("the local server's answer was not JSON: ") + e.text();
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return QStringLiteral("unknown error");
    }
}
