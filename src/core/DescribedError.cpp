#include "core/DescribedError.h"

QString describeError(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const DescribedError &e) {
        return e.description();
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return QStringLiteral("unknown error");
    }
}
