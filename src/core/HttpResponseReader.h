#pragma once

#include <QByteArray>
#include <QList>
#include <algorithm>
#include <optional>

// Reads one HTTP/1.x response from bytes as they arrive: status line, headers, then a body delimited
// by Content-Length, by chunked transfer coding, or by the end of the connection.
class HttpResponseReader {
public:
    // A head larger than this is not from one of our servers.
    static constexpr qsizetype kMaxHeadBytes = 64 * 1024;
    // Nor is a body larger than this (a transcript or a rewrite is a few kilobytes); reading stops
    // there, so a runaway server cannot take the memory with it.
    static constexpr qint64 kMaxBodyBytes = 8 * 1024 * 1024;

    void feed(const QByteArray &bytes) {
        m_started = m_started || !bytes.isEmpty();
        m_buffer += bytes;
        while (step()) {
        }
        m_buffer.remove(0, m_pos);
        m_pos = 0;
    }

    // The peer has closed: true when that completes the answer.
    bool finishAtClose() {
        if (m_state == State::untilClose)
            m_state = State::done;
        return m_state == State::done;
    }

    bool started() const { return m_started; }
    bool done() const { return m_state == State::done; }
    bool malformed() const { return m_state == State::malformed; }
    bool tooLarge() const { return m_state == State::tooLarge; }
    int status() const { return m_status; }
    QByteArray takeBody() { return std::move(m_body); }

private:
    enum class State { head, length, untilClose, chunkSize, chunkData, chunkEnd, trailers, done, malformed, tooLarge };

    qsizetype available() const { return m_buffer.size() - m_pos; }

    // The next CR LF-terminated line, without its terminator.
    std::optional<QByteArray> takeLine() {
        const qsizetype end = m_buffer.indexOf("\r\n", m_pos);
        if (end < 0)
            return std::nullopt;
        QByteArray line = m_buffer.mid(m_pos, end - m_pos);
        m_pos = end + 2;
        return line;
    }

    // False, and the reader stops, once the body would pass its ceiling.
    bool fits(qint64 more) {
        if (m_body.size() + more <= kMaxBodyBytes)
            return true;
        m_state = State::tooLarge;
        return false;
    }

    void takeBodyBytes() {
        const qsizetype count = std::min<qint64>(m_remaining, available());
        if (!fits(count))
            return;
        m_body.append(m_buffer.constData() + m_pos, count);
        m_pos += count;
        m_remaining -= count;
    }

    // Parses what it can; false once it needs more bytes.
    bool step() {
        switch (m_state) {
        case State::head: {
            const qsizetype end = m_buffer.indexOf("\r\n\r\n", m_pos);
            if (end < 0) {
                if (available() > kMaxHeadBytes)
                    m_state = State::malformed;
                return false;
            }
            const QByteArray head = m_buffer.mid(m_pos, end - m_pos);
            m_pos = end + 4;
            readHead(head);
            return m_state != State::malformed && m_state != State::done;
        }
        case State::length:
            takeBodyBytes();
            if (m_remaining == 0 && m_state == State::length)
                m_state = State::done;
            return false;
        case State::untilClose:
            if (!fits(available()))
                return false;
            m_body.append(m_buffer.constData() + m_pos, available());
            m_pos = m_buffer.size();
            return false;
        case State::chunkSize: {
            const auto line = takeLine();
            if (!line)
                return false;
            // Chunk extensions after ';' carry nothing we need.
            const qsizetype semicolon = line->indexOf(';');
            bool ok = false;
            m_remaining = (semicolon < 0 ? *line : line->left(semicolon)).trimmed().toLongLong(&ok, 16);
            if (!ok || m_remaining < 0)
                m_state = State::malformed;
            else
                m_state = m_remaining == 0 ? State::trailers : State::chunkData;
            return m_state != State::malformed;
        }
        case State::chunkData:
            takeBodyBytes();
            if (m_remaining > 0 || m_state != State::chunkData)
                return false;
            m_state = State::chunkEnd;
            return true;
        case State::chunkEnd:
            if (available() < 2)
                return false;
            if (m_buffer.mid(m_pos, 2) != "\r\n") {
                m_state = State::malformed;
                return false;
            }
            m_pos += 2;
            m_state = State::chunkSize;
            return true;
        case State::trailers: {
            const auto line = takeLine();
            if (!line)
                return false;
            if (line->isEmpty())
                m_state = State::done;
            return m_state != State::done;
        }
        case State::done:
        case State::malformed:
        case State::tooLarge:
            return false;
        }
        return false;
    }

    void readHead(const QByteArray &head) {
        const QList<QByteArray> lines = head.split('\n');
        const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
        bool ok = false;
        m_status = statusLine.size() >= 2 ? statusLine[1].toInt(&ok) : 0;
        if (!statusLine.first().startsWith("HTTP/1.") || !ok || m_status < 100 || m_status > 999) {
            m_state = State::malformed;
            return;
        }
        bool chunked = false;
        std::optional<qint64> length;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            if (colon <= 0)
                continue;
            const QByteArray name = lines[i].left(colon).trimmed().toLower();
            const QByteArray value = lines[i].mid(colon + 1).trimmed().toLower();
            if (name == "transfer-encoding") {
                chunked = value.endsWith("chunked");
            } else if (name == "content-length") {
                length = value.toLongLong(&ok);
                if (!ok || *length < 0) {
                    m_state = State::malformed;
                    return;
                }
            }
        }
        if (m_status < 200 && m_status != 101) {
            // An interim answer (100 Continue); the real one follows.
            m_state = State::head;
        } else if (m_status == 101 || m_status == 204 || m_status == 304) {
            m_state = State::done;
        } else if (chunked) {
            m_state = State::chunkSize;
        } else if (length && *length > kMaxBodyBytes) {
            m_state = State::tooLarge;
        } else if (length) {
            m_remaining = *length;
            m_state = m_remaining == 0 ? State::done : State::length;
        } else {
            m_state = State::untilClose;
        }
    }

    State m_state = State::head;
    QByteArray m_buffer;
    qsizetype m_pos = 0;
    bool m_started = false;
    int m_status = 0;
    qint64 m_remaining = 0;
    QByteArray m_body;
};
