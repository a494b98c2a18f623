#include "platform/mac/MacCuePlayer.h"

#include "platform/CueSound.h"

#import <AppKit/AppKit.h>

struct MacCuePlayer::Sounds {
    NSSound *start = nil;
    NSSound *stop = nil;
};

namespace {

NSSound *makeSound(Cue cue) {
    const QByteArray wav = CueSound::wav(cue);
    NSData *data = [NSData dataWithBytes:wav.constData() length:NSUInteger(wav.size())];
    return [[NSSound alloc] initWithData:data];
}

} // namespace

MacCuePlayer::MacCuePlayer() : m_sounds(std::make_unique<Sounds>()) {
    m_sounds->start = makeSound(Cue::start);
    m_sounds->stop = makeSound(Cue::stop);
}

MacCuePlayer::~MacCuePlayer() = default;

bool MacCuePlayer::play(Cue cue) {
    NSSound *sound = cue == Cue::start ? m_sounds->start : m_sounds->stop;
    // A cue still sounding from a quick press before starts over rather than being skipped.
    [sound stop];
    return sound && [sound play];
}
