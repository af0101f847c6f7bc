#pragma once

#include <QByteArray>

#include <memory>

namespace TavCoreShared {
namespace Network {

// Undoes a gzip or deflate Content-Encoding piece by piece, so that no answer is ever inflated
// in one go, and tells a stream that ended cleanly from one cut short or corrupt.
class BodyDecoder
{
public:
    // Stalled: nothing more can be decoded until more input comes.
    enum class Status { Progress, Stalled, Corrupt };

    // Null for an encoding that is not ours to undo ("identity", none, or one never asked for).
    static std::unique_ptr<BodyDecoder> forEncoding(const QByteArray& contentEncoding);
    ~BodyDecoder();
    Q_DISABLE_COPY(BodyDecoder)

    void push(const QByteArray& encoded) { input_ += encoded; }
    bool hasInput() const { return used_ < input_.size(); }
    // Appends at most maxBytes decoded bytes to *out.
    Status pull(QByteArray* out, int maxBytes);
    // True once the stream's own end was read: anything less is a body cut short.
    bool atEnd() const { return ended_; }

private:
    struct Stream;
    explicit BodyDecoder(bool gzip);
    bool start(bool raw);

    std::unique_ptr<Stream> stream_;
    bool gzip_;
    bool started_ = false;
    bool ended_ = false;
    QByteArray input_;
    int used_ = 0;
};

} // namespace Network
} // namespace TavCoreShared
