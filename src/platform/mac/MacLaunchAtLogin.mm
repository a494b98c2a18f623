#include "core/LaunchAtLogin.h"

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

namespace {

class MainAppLoginItem final : public LaunchAtLogin::Service {
public:
    bool isEnabled() override { return [SMAppService mainAppService].status == SMAppServiceStatusEnabled; }
    QString enable() override {
        NSError *error = nil;
        if ([[SMAppService mainAppService] registerAndReturnError:&error])
            return {};
        return QString::fromNSString(error.localizedDescription);
    }
    QString disable() override {
        NSError *error = nil;
        if ([[SMAppService mainAppService] unregisterAndReturnError:&error])
            return {};
        return QString::fromNSString(error.localizedDescription);
    }
};

} // namespace

namespace LaunchAtLogin {

void set(bool enabled) {
    MainAppLoginItem service;
    apply(service, enabled);
}

} // namespace LaunchAtLogin
