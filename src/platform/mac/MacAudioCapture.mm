#include "platform/mac/MacAudioCapture.h"

#include "core/QuorvaneError.h"

#import <AVFoundation/AVFoundation.h>

#include <mutex>
#include <stdexcept>

namespace {

// Where the tap's buffers go. close() empties it under the lock, so once it returns no callback
// is running or will run, whenever the engine's render thread lets go of the tap.
struct Delivery {
    std::mutex lock;
    AudioBackend::BufferHandler onBuffer;
    AudioBackend::ErrorHandler onConversionError;

    void buffer(std::vector<float> samples) {
        std::lock_guard guard(lock);
        if (onBuffer)
            onBuffer(std::move(samples));
    }
    void conversionFailed(const QString &description) {
        std::lock_guard guard(lock);
        if (onConversionError)
            onConversionError(description);
    }
    void clear() {
        std::lock_guard guard(lock);
        onBuffer = {};
        onConversionError = {};
    }
};

std::runtime_error failure(NSError *error) {
    return std::runtime_error(QString::fromNSString(error.localizedDescription).toStdString());
}

std::vector<float> channelZero(AVAudioPCMBuffer *buffer) {
    float *const *channels = buffer.floatChannelData;
    if (!channels || buffer.frameLength == 0)
        return {};
    return std::vector<float>(channels[0], channels[0] + buffer.frameLength);
}

// Converts one tap buffer; nil when it is dropped.
AVAudioPCMBuffer *convert(AVAudioConverter *converter, AVAudioPCMBuffer *input, Delivery &delivery) {
    AVAudioFormat *target = converter.outputFormat;
    const auto capacity =
        AVAudioFrameCount(target.sampleRate / converter.inputFormat.sampleRate * input.frameLength) + 1024;
    AVAudioPCMBuffer *output = [[AVAudioPCMBuffer alloc] initWithPCMFormat:target frameCapacity:capacity];
    if (!output)
        return nil;
    __block bool supplied = false;
    NSError *error = nil;
    const AVAudioConverterOutputStatus status =
        [converter convertToBuffer:output
                             error:&error
                withInputFromBlock:^AVAudioBuffer *(AVAudioPacketCount, AVAudioConverterInputStatus *inputStatus) {
                  // Each tap buffer is handed over once; the converter keeps its state for the next.
                  if (supplied) {
                      *inputStatus = AVAudioConverterInputStatus_NoDataNow;
                      return nil;
                  }
                  supplied = true;
                  *inputStatus = AVAudioConverterInputStatus_HaveData;
                  return input;
                }];
    if (error) {
        delivery.conversionFailed(QString::fromNSString(error.localizedDescription));
        return nil;
    }
    if (status == AVAudioConverterOutputStatus_Error || output.frameLength == 0)
        return nil;
    return output;
}

} // namespace

struct MacAudioCapture::Engine {
    AVAudioEngine *engine = [[AVAudioEngine alloc] init];
    std::shared_ptr<Delivery> delivery;
    // Whether open() touched this engine, so close() has one to tear down.
    bool used = false;
};

MacAudioCapture::MacAudioCapture() : m_engine(std::make_unique<Engine>()) {}

MacAudioCapture::~MacAudioCapture() {
    close();
}

bool MacAudioCapture::permissionGranted() {
    return [AVCaptureDevice authorizationStatusForMediaType:AVMediaTypeAudio] == AVAuthorizationStatusAuthorized;
}

bool MacAudioCapture::voiceProcessingEnabled() {
    return m_engine->engine.inputNode.voiceProcessingEnabled;
}

void MacAudioCapture::setVoiceProcessingEnabled(bool on) {
    NSError *error = nil;
    if (![m_engine->engine.inputNode setVoiceProcessingEnabled:on error:&error])
        throw failure(error);
}

AudioBackend::InputFormat MacAudioCapture::inputFormat() {
    AVAudioFormat *format = [m_engine->engine.inputNode outputFormatForBus:0];
    return {format.sampleRate, int(format.channelCount)};
}

void MacAudioCapture::open(double targetRate, BufferHandler onBuffer, ErrorHandler onConversionError) {
    AVAudioInputNode *input = m_engine->engine.inputNode;
    AVAudioFormat *inputFormat = [input outputFormatForBus:0];
    AVAudioFormat *targetFormat = [[AVAudioFormat alloc] initWithCommonFormat:AVAudioPCMFormatFloat32
                                                                   sampleRate:targetRate
                                                                     channels:1
                                                                  interleaved:NO];
    if (!targetFormat)
        throw QuorvaneError(QuorvaneError::Case::audioFormatUnsupported);
    AVAudioConverter *converter = nil;
    if (![inputFormat isEqual:targetFormat]) {
        converter = [[AVAudioConverter alloc] initFromFormat:inputFormat toFormat:targetFormat];
        if (!converter)
            throw QuorvaneError(QuorvaneError::Case::audioFormatUnsupported);
    }

    auto delivery = std::make_shared<Delivery>();
    delivery->onBuffer = std::move(onBuffer);
    delivery->onConversionError = std::move(onConversionError);
    m_engine->delivery = delivery;
    m_engine->used = true;
    [input removeTapOnBus:0];
    // The block holds the delivery and the converter, never this object.
    [input installTapOnBus:0
                bufferSize:2048
                    format:inputFormat
                     block:^(AVAudioPCMBuffer *buffer, AVAudioTime *) {
                       AVAudioPCMBuffer *samples = converter ? convert(converter, buffer, *delivery) : buffer;
                       if (samples)
                           delivery->buffer(channelZero(samples));
                     }];
    [m_engine->engine prepare];
    NSError *error = nil;
    if (![m_engine->engine startAndReturnError:&error]) {
        [input removeTapOnBus:0];
        delivery->clear();
        throw failure(error);
    }
}

void MacAudioCapture::close() {
    if (m_engine->delivery) {
        m_engine->delivery->clear();
        m_engine->delivery.reset();
    }
    if (!m_engine->used)
        return; // keeps the voice-processing choice made on this engine for the next open()
    AVAudioEngine *engine = m_engine->engine;
    [engine.inputNode removeTapOnBus:0];
    [engine stop];
    [engine reset];
    m_engine = std::make_unique<Engine>();
}

bool MacAudioCapture::isRunning() {
    return [m_engine->engine isRunning];
}
