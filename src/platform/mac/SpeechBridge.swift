import AVFoundation
import Foundation
import Speech

// Exports the Speech framework calls the on-device engine needs to C++. Only operating system calls
// live here; every decision, limit and message is made on the C++ side. SpeechAnalyzer exists in
// the macOS 26 SDK and later; CMake defines QUORVANE_SPEECH_ANALYZER when building with one.

public typealias QuorvaneSrStatusCallback = @convention(c) (UnsafeMutableRawPointer?, Int32, UnsafePointer<CChar>?) -> Void
public typealias QuorvaneSrSegmentCallback = @convention(c) (UnsafeMutableRawPointer?, UnsafePointer<CChar>?) -> Void

// A C callback and its context, carried as an address so that tasks capture only plain values.
private struct Reply: @unchecked Sendable {
    let context: Int
    let callback: QuorvaneSrStatusCallback

    init(_ context: UnsafeMutableRawPointer?, _ callback: QuorvaneSrStatusCallback) {
        self.context = Int(bitPattern: context)
        self.callback = callback
    }

    func send(_ status: Int32, _ text: String = "") {
        text.withCString { callback(UnsafeMutableRawPointer(bitPattern: context), status, $0) }
    }
}

private func analyzerAvailable() -> Bool {
    #if QUORVANE_SPEECH_ANALYZER
    if #available(macOS 26.0, *) {
        return SpeechTranscriber.isAvailable
    }
    #endif
    return false
}

// Mono float samples as a buffer in `format`; nil when they cannot be converted.
private func pcmBuffer(_ samples: UnsafePointer<Float>, _ count: Int, _ rate: Double,
                       converter: inout AVAudioConverter?, to format: AVAudioFormat?) -> AVAudioPCMBuffer? {
    guard count > 0,
          let source = AVAudioFormat(commonFormat: .pcmFormatFloat32, sampleRate: rate, channels: 1, interleaved: false),
          let input = AVAudioPCMBuffer(pcmFormat: source, frameCapacity: AVAudioFrameCount(count)),
          let channel = input.floatChannelData?[0]
    else { return nil }
    channel.update(from: samples, count: count)
    input.frameLength = AVAudioFrameCount(count)
    guard let target = format, target != source else { return input }
    if converter == nil || converter?.inputFormat != source {
        converter = AVAudioConverter(from: source, to: target)
    }
    guard let converter,
          let output = AVAudioPCMBuffer(pcmFormat: target,
                                        frameCapacity: AVAudioFrameCount(target.sampleRate / rate * Double(count)) + 1024)
    else { return nil }
    var supplied = false
    var error: NSError?
    let status = converter.convert(to: output, error: &error) { _, inputStatus in
        // Each buffer is handed over once; the converter keeps its state for the next.
        if supplied {
            inputStatus.pointee = .noDataNow
            return nil
        }
        supplied = true
        inputStatus.pointee = .haveData
        return input
    }
    if status == .error || error != nil || output.frameLength == 0 {
        return nil
    }
    return output
}

@_cdecl("quorvane_sr_technology")
public func quorvaneSrTechnology() -> Int32 {
    analyzerAvailable() ? 0 : 1
}

@_cdecl("quorvane_sr_permission")
public func quorvaneSrPermission() -> Int32 {
    switch SFSpeechRecognizer.authorizationStatus() {
    case .authorized:
        return 0
    case .notDetermined:
        return 2
    default:
        return 1
    }
}

@_cdecl("quorvane_sr_request_permission")
public func quorvaneSrRequestPermission(_ context: UnsafeMutableRawPointer?, _ callback: QuorvaneSrStatusCallback) {
    let reply = Reply(context, callback)
    SFSpeechRecognizer.requestAuthorization { status in
        reply.send(status == .authorized ? 0 : 1)
    }
}

// The older recogniser falls back to the dictation language for a locale it lacks, so the locale is
// looked up in its list instead.
private func legacyRecognizer(_ identifier: String) -> SFSpeechRecognizer? {
    let wanted = identifier.replacingOccurrences(of: "_", with: "-").lowercased()
    guard let locale = SFSpeechRecognizer.supportedLocales().first(where: {
        $0.identifier.replacingOccurrences(of: "_", with: "-").lowercased() == wanted
    }) else { return nil }
    return SFSpeechRecognizer(locale: locale)
}

@_cdecl("quorvane_sr_locale_support")
public func quorvaneSrLocaleSupport(_ locale: UnsafePointer<CChar>, _ context: UnsafeMutableRawPointer?,
                                    _ callback: QuorvaneSrStatusCallback) {
    let identifier = String(cString: locale)
    let reply = Reply(context, callback)
    #if QUORVANE_SPEECH_ANALYZER
    if #available(macOS 26.0, *), analyzerAvailable() {
        Task {
            guard let supported = await SpeechTranscriber.supportedLocale(equivalentTo: Locale(identifier: identifier)) else {
                reply.send(2)
                return
            }
            let transcriber = SpeechTranscriber(locale: supported, transcriptionOptions: [], reportingOptions: [],
                                                attributeOptions: [])
            switch await AssetInventory.status(forModules: [transcriber]) {
            case .installed:
                reply.send(0)
            case .supported, .downloading:
                reply.send(1)
            default:
                reply.send(2)
            }
        }
        return
    }
    #endif
    // The older recogniser cannot be told to fetch a model; only one already on the device counts.
    let recognizer = legacyRecognizer(identifier)
    reply.send(recognizer?.supportsOnDeviceRecognition == true ? 0 : 2)
}

private final class InstallBox: @unchecked Sendable {
    private let lock = NSLock()
    private var progress: Progress?

    func set(_ value: Progress) {
        lock.lock()
        progress = value
        lock.unlock()
    }

    var fraction: Double {
        lock.lock()
        defer { lock.unlock() }
        return progress?.fractionCompleted ?? 0
    }
}

@_cdecl("quorvane_sr_install")
public func quorvaneSrInstall(_ locale: UnsafePointer<CChar>, _ context: UnsafeMutableRawPointer?,
                              _ callback: QuorvaneSrStatusCallback) -> UnsafeMutableRawPointer {
    let identifier = String(cString: locale)
    let reply = Reply(context, callback)
    let box = InstallBox()
    #if QUORVANE_SPEECH_ANALYZER
    if #available(macOS 26.0, *), analyzerAvailable() {
        Task {
            do {
                let supported = await SpeechTranscriber.supportedLocale(equivalentTo: Locale(identifier: identifier))
                    ?? Locale(identifier: identifier)
                let transcriber = SpeechTranscriber(locale: supported, transcriptionOptions: [], reportingOptions: [],
                                                    attributeOptions: [])
                // Nil when everything is already installed.
                if let request = try await AssetInventory.assetInstallationRequest(supporting: [transcriber]) {
                    box.set(request.progress)
                    try await request.downloadAndInstall()
                }
                reply.send(0)
            } catch {
                reply.send(1, error.localizedDescription)
            }
        }
        return Unmanaged.passRetained(box).toOpaque()
    }
    #endif
    // The older recogniser offers no download; the engine never asks for one there.
    reply.send(1)
    return Unmanaged.passRetained(box).toOpaque()
}

@_cdecl("quorvane_sr_install_progress")
public func quorvaneSrInstallProgress(_ install: UnsafeMutableRawPointer) -> Double {
    Unmanaged<InstallBox>.fromOpaque(install).takeUnretainedValue().fraction
}

@_cdecl("quorvane_sr_install_release")
public func quorvaneSrInstallRelease(_ install: UnsafeMutableRawPointer) {
    Unmanaged<InstallBox>.fromOpaque(install).release()
}

// One utterance on either recogniser. The lock guards the segment callback, so that once released
// no callback runs, and the state the two recognisers keep.
private class SpeechSession: @unchecked Sendable {
    let lock = NSLock()
    var onSegment: QuorvaneSrSegmentCallback?
    let segmentContext: Int

    init(context: UnsafeMutableRawPointer?, onSegment: QuorvaneSrSegmentCallback) {
        segmentContext = Int(bitPattern: context)
        self.onSegment = onSegment
    }

    func deliver(_ text: String) {
        lock.lock()
        defer { lock.unlock() }
        guard let onSegment else { return }
        text.withCString { onSegment(UnsafeMutableRawPointer(bitPattern: segmentContext), $0) }
    }

    func detach() {
        lock.lock()
        onSegment = nil
        lock.unlock()
    }

    func append(_ samples: UnsafePointer<Float>, _ count: Int, _ rate: Double) {}
    func finish(_ reply: Reply) { reply.send(2) }
    func cancel() {}
}

#if QUORVANE_SPEECH_ANALYZER
@available(macOS 26.0, *)
private final class AnalyzerSession: SpeechSession {
    private let input: AsyncStream<AnalyzerInput>.Continuation
    private let stream: AsyncStream<AnalyzerInput>
    // Guarded by the lock: the analyser's format is known only once it is set up, so audio that
    // comes sooner waits here.
    private var format: AVAudioFormat?
    private var ready = false
    private var pending: [([Float], Double)] = []
    private var converter: AVAudioConverter?
    private var analyzer: SpeechAnalyzer?
    private var setup: Task<Void, Error>?
    private var results: Task<Void, Error>?

    init(locale: String, phrases: [String], context: UnsafeMutableRawPointer?, onSegment: QuorvaneSrSegmentCallback) {
        let pair = AsyncStream<AnalyzerInput>.makeStream()
        stream = pair.stream
        input = pair.continuation
        super.init(context: context, onSegment: onSegment)
        setup = Task { [stream] in
            let supported = await SpeechTranscriber.supportedLocale(equivalentTo: Locale(identifier: locale))
                ?? Locale(identifier: locale)
            let transcriber = SpeechTranscriber(locale: supported, transcriptionOptions: [], reportingOptions: [],
                                                attributeOptions: [])
            let analyzer = SpeechAnalyzer(modules: [transcriber])
            if !phrases.isEmpty {
                let analysisContext = AnalysisContext()
                analysisContext.contextualStrings[.general] = phrases
                try await analyzer.setContext(analysisContext)
            }
            let format = await SpeechAnalyzer.bestAvailableAudioFormat(compatibleWith: [transcriber])
            let results = Task {
                for try await result in transcriber.results where result.isFinal {
                    self.deliver(String(result.text.characters))
                }
            }
            try await analyzer.start(inputSequence: stream)
            // withLock: a plain lock() may not be called from an asynchronous context.
            self.lock.withLock {
                self.results = results
                self.analyzer = analyzer
                self.format = format
                self.ready = true
                let waiting = self.pending
                self.pending = []
                for (samples, rate) in waiting {
                    samples.withUnsafeBufferPointer { self.yieldLocked($0.baseAddress!, samples.count, rate) }
                }
            }
        }
    }

    // Call with the lock held.
    private func yieldLocked(_ samples: UnsafePointer<Float>, _ count: Int, _ rate: Double) {
        if let buffer = pcmBuffer(samples, count, rate, converter: &converter, to: format) {
            input.yield(AnalyzerInput(buffer: buffer))
        }
    }

    override func append(_ samples: UnsafePointer<Float>, _ count: Int, _ rate: Double) {
        lock.lock()
        defer { lock.unlock() }
        if ready {
            yieldLocked(samples, count, rate)
        } else {
            pending.append((Array(UnsafeBufferPointer(start: samples, count: count)), rate))
        }
    }

    override func finish(_ reply: Reply) {
        Task {
            do {
                try await self.setup?.value
                self.input.finish()
                let (analyzer, results) = self.lock.withLock { (self.analyzer, self.results) }
                try await analyzer?.finalizeAndFinishThroughEndOfInput()
                try await results?.value
                reply.send(0)
            } catch {
                reply.send(2, error.localizedDescription)
            }
        }
    }

    override func cancel() {
        detach()
        input.finish()
        setup?.cancel()
        lock.lock()
        let running = analyzer
        results?.cancel()
        lock.unlock()
        if let running {
            Task { await running.cancelAndFinishNow() }
        }
    }
}
#endif

private final class RecognizerSession: SpeechSession {
    private let request = SFSpeechAudioBufferRecognitionRequest()
    private var task: SFSpeechRecognitionTask?
    // Guarded by the lock: how the recognition ended, and who waits for it.
    private var ending: (Int32, String)?
    private var waiting: Reply?

    init(locale: String, phrases: [String], context: UnsafeMutableRawPointer?, onSegment: QuorvaneSrSegmentCallback) {
        super.init(context: context, onSegment: onSegment)
        guard let recognizer = legacyRecognizer(locale), recognizer.supportsOnDeviceRecognition else {
            ending = (2, "")
            return
        }
        request.requiresOnDeviceRecognition = true
        request.shouldReportPartialResults = false
        request.contextualStrings = phrases
        request.addsPunctuation = true
        task = recognizer.recognitionTask(with: request) { [weak self] result, error in
            guard let self else { return }
            if let result, result.isFinal {
                self.deliver(result.bestTranscription.formattedString)
                self.end(0, "")
            } else if let error {
                // The recogniser reports an utterance without speech as an error of its own.
                let nsError = error as NSError
                if nsError.domain == "kAFAssistantErrorDomain" && nsError.code == 1110 {
                    self.end(1, "")
                } else {
                    self.end(2, error.localizedDescription)
                }
            }
        }
    }

    private func end(_ status: Int32, _ text: String) {
        lock.lock()
        if ending == nil {
            ending = (status, text)
        }
        let reply = waiting
        waiting = nil
        let result = ending!
        lock.unlock()
        reply?.send(result.0, result.1)
    }

    override func append(_ samples: UnsafePointer<Float>, _ count: Int, _ rate: Double) {
        var none: AVAudioConverter?
        if let buffer = pcmBuffer(samples, count, rate, converter: &none, to: nil) {
            request.append(buffer)
        }
    }

    override func finish(_ reply: Reply) {
        lock.lock()
        if let ending {
            lock.unlock()
            reply.send(ending.0, ending.1)
            return
        }
        waiting = reply
        lock.unlock()
        request.endAudio()
    }

    override func cancel() {
        detach()
        task?.cancel()
    }
}

@_cdecl("quorvane_sr_session_start")
public func quorvaneSrSessionStart(_ locale: UnsafePointer<CChar>, _ contextualStrings: UnsafePointer<UnsafePointer<CChar>?>?,
                                   _ count: Int32, _ context: UnsafeMutableRawPointer?,
                                   _ onSegment: QuorvaneSrSegmentCallback) -> UnsafeMutableRawPointer {
    let identifier = String(cString: locale)
    var phrases: [String] = []
    for index in 0..<Int(count) {
        if let phrase = contextualStrings?[index] {
            phrases.append(String(cString: phrase))
        }
    }
    var session: SpeechSession?
    #if QUORVANE_SPEECH_ANALYZER
    if #available(macOS 26.0, *), analyzerAvailable() {
        session = AnalyzerSession(locale: identifier, phrases: phrases, context: context, onSegment: onSegment)
    }
    #endif
    let chosen = session ?? RecognizerSession(locale: identifier, phrases: phrases, context: context, onSegment: onSegment)
    return Unmanaged.passRetained(chosen).toOpaque()
}

@_cdecl("quorvane_sr_session_append")
public func quorvaneSrSessionAppend(_ session: UnsafeMutableRawPointer, _ samples: UnsafePointer<Float>,
                                    _ count: Int32, _ sampleRate: Double) {
    Unmanaged<SpeechSession>.fromOpaque(session).takeUnretainedValue().append(samples, Int(count), sampleRate)
}

@_cdecl("quorvane_sr_session_finish")
public func quorvaneSrSessionFinish(_ session: UnsafeMutableRawPointer, _ context: UnsafeMutableRawPointer?,
                                    _ callback: QuorvaneSrStatusCallback) {
    Unmanaged<SpeechSession>.fromOpaque(session).takeUnretainedValue().finish(Reply(context, callback))
}

@_cdecl("quorvane_sr_session_cancel")
public func quorvaneSrSessionCancel(_ session: UnsafeMutableRawPointer) {
    Unmanaged<SpeechSession>.fromOpaque(session).takeUnretainedValue().cancel()
}

@_cdecl("quorvane_sr_session_release")
public func quorvaneSrSessionRelease(_ session: UnsafeMutableRawPointer) {
    let unmanaged = Unmanaged<SpeechSession>.fromOpaque(session)
    unmanaged.takeUnretainedValue().detach()
    unmanaged.release()
}
