#include "core/AppInfo.h"

#import <Foundation/Foundation.h>

namespace AppInfo {

QString version() {
    NSDictionary *info = [[NSBundle mainBundle] infoDictionary];
    id value = info[@"CFBundleShortVersionString"];
    if (![value isKindOfClass:[NSString class]])
        return versionFrom(std::nullopt);
    return versionFrom(QString::fromNSString(static_cast<NSString *>(value)));
}

} // namespace AppInfo
