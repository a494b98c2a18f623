import Foundation
#if canImport(FoundationModels)
import FoundationModels
#endif

// Exports the few FoundationModels calls the on-device formatter needs to C++. Only operating
// system calls live here; every decision is made on the C++ side.

#if canImport(FoundationModels)
@available(macOS 26.0, *)
private final class SessionBox: @unchecked Sendable {
    let session: LanguageModelSession

    init(instructions: String) {
        session = LanguageModelSession(model: SystemLanguageModel.default, tools: [], instructions: instructions)
    }
}
#endif

@_cdecl("quorvane_fm_availability")
public func quorvaneFmAvailability() -> Int32 {
    #if canImport(FoundationModels)
    if #available(macOS 26.0, *) {
        switch SystemLanguageModel.default.availability {
        case .available:
            return 0
        case .unavailable(let reason):
            switch reason {
            case .deviceNotEligible:
                return 1
            case .appleIntelligenceNotEnabled:
                return 2
            case .modelNotReady:
                return 3
            @unknown default:
                return 4
            }
        @unknown default:
            return 4
        }
    }
    #endif
    return 4
}

@_cdecl("quorvane_fm_session_create")
public func quorvaneFmSessionCreate(_ instructions: UnsafePointer<CChar>) -> UnsafeMutableRawPointer? {
    #if canImport(FoundationModels)
    if #available(macOS 26.0, *) {
        let box = SessionBox(instructions: String(cString: instructions))
        return Unmanaged.passRetained(box).toOpaque()
    }
    #endif
    return nil
}

@_cdecl("quorvane_fm_session_prewarm")
public func quorvaneFmSessionPrewarm(_ session: UnsafeMutableRawPointer) {
    #if canImport(FoundationModels)
    if #available(macOS 26.0, *) {
        Unmanaged<SessionBox>.fromOpaque(session).takeUnretainedValue().session.prewarm(promptPrefix: nil)
    }
    #endif
}

@_cdecl("quorvane_fm_session_release")
public func quorvaneFmSessionRelease(_ session: UnsafeMutableRawPointer) {
    #if canImport(FoundationModels)
    if #available(macOS 26.0, *) {
        Unmanaged<SessionBox>.fromOpaque(session).release()
    }
    #endif
}

@_cdecl("quorvane_fm_session_respond")
public func quorvaneFmSessionRespond(
    _ session: UnsafeMutableRawPointer,
    _ prompt: UnsafePointer<CChar>,
    _ maximumResponseTokens: Int32,
    _ context: UnsafeMutableRawPointer?,
    _ callback: @escaping @convention(c) (UnsafeMutableRawPointer?, Int32, UnsafePointer<CChar>?) -> Void
) {
    let text = String(cString: prompt)
    // Carried as an address so that the task below captures only sendable values.
    let contextAddress = Int(bitPattern: context)
    let finish: @Sendable (Int32, String) -> Void = { status, message in
        message.withCString { callback(UnsafeMutableRawPointer(bitPattern: contextAddress), status, $0) }
    }
    #if canImport(FoundationModels)
    if #available(macOS 26.0, *) {
        // The task holds its own reference, so the caller may release the session meanwhile.
        let box = Unmanaged<SessionBox>.fromOpaque(session).takeUnretainedValue()
        let options = GenerationOptions(sampling: .greedy, maximumResponseTokens: Int(maximumResponseTokens))
        Task {
            do {
                let response = try await box.session.respond(to: text, options: options)
                finish(0, response.content)
            } catch let error as LanguageModelSession.GenerationError {
                finish(1, error.localizedDescription)
            } catch {
                finish(2, error.localizedDescription)
            }
        }
        return
    }
    #endif
    // Without the framework there is no session to answer; the C++ side words the failure.
    finish(2, "")
}
