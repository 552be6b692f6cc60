// pelorin-bench-rfb PORT latency|motion: the same two measurements as the viewer's --measure, of a remote
// framebuffer server (RFC 6143) on this machine, so that both stand side by side in one run. Prints JSON.
// Latency: a key press sent until the decoded update shows the change. Motion: distinct frame numbers of the
// bench target seen a second.

#include "PelorinViewer/FrameMark.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t spaceKeysym = 0x20;
constexpr std::int32_t rawEncoding = 0;
constexpr std::int32_t zrleEncoding = 16;
constexpr int tileSize = 64;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class Connection {
public:
    explicit Connection(std::uint16_t port) : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("can't connect");
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Connection() { close(fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void write(const Bytes& bytes)
    {
        if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("the server closed");
    }
    void read(std::span<std::uint8_t> into)
    {
        while (!into.empty()) {
            if (begin == end) {
                const auto count = recv(fd, buffer.data(), buffer.size(), 0);
                if (count <= 0) throw std::runtime_error("the server closed");
                begin = 0;
                end = static_cast<std::size_t>(count);
                received += end;
            }
            const auto count = std::min(into.size(), end - begin);
            std::memcpy(into.data(), buffer.data() + begin, count);
            begin += count;
            into = into.subspan(count);
        }
    }
    std::uint32_t readInteger(int bytes)
    {
        std::array<std::uint8_t, 4> raw{};
        read(std::span(raw).first(static_cast<std::size_t>(bytes)));
        std::uint32_t value = 0;
        for (int i = 0; i < bytes; ++i) value = value << 8 | raw[static_cast<std::size_t>(i)];
        return value;
    }
    bool waitReadable(int timeoutMs)
    {
        if (begin != end) return true;
        pollfd waiting{fd, POLLIN, 0};
        return poll(&waiting, 1, timeoutMs) > 0;
    }

    std::uint64_t received = 0;

private:
    int fd;
    std::array<std::uint8_t, 262'144> buffer;
    std::size_t begin = 0;
    std::size_t end = 0;
};

void append(Bytes& bytes, std::uint32_t value, int width)
{
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

// Keeps the server's framebuffer as 0x00RRGGBB.
class RfbClient {
public:
    explicit RfbClient(std::uint16_t port) : connection(port)
    {
        if (inflateInit(&zlib) != Z_OK) throw std::runtime_error("zlib");
        std::array<std::uint8_t, 12> version;
        connection.read(version);
        connection.write(Bytes(version.begin(), version.end()));
        Bytes types(connection.readInteger(1));
        connection.read(types);
        if (std::ranges::find(types, 1) == types.end())
            throw std::runtime_error("the server wants a password");
        connection.write({1});
        if (connection.readInteger(4) != 0) throw std::runtime_error("refused");
        connection.write({1});
        width = static_cast<int>(connection.readInteger(2));
        height = static_cast<int>(connection.readInteger(2));
        Bytes format(16);
        connection.read(format);
        Bytes name(connection.readInteger(4));
        connection.read(name);
        pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));

        connection.write({0, 0, 0, 0, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0});
        Bytes encodings{2, 0, 0, 2};
        append(encodings, zrleEncoding, 4);
        append(encodings, rawEncoding, 4);
        connection.write(encodings);
        request(false);
    }
    ~RfbClient() { inflateEnd(&zlib); }
    RfbClient(const RfbClient&) = delete;
    RfbClient& operator=(const RfbClient&) = delete;

    void request(bool isIncremental)
    {
        Bytes bytes{3, isIncremental};
        append(bytes, 0, 4);
        append(bytes, static_cast<std::uint32_t>(width), 2);
        append(bytes, static_cast<std::uint32_t>(height), 2);
        connection.write(bytes);
    }
    void key(std::uint32_t keysym, bool isDown)
    {
        Bytes bytes{4, isDown, 0, 0};
        append(bytes, keysym, 4);
        connection.write(bytes);
    }
    // Takes in one update and asks for the next; false when none came in time.
    bool update(int timeoutMs)
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (Clock::now() < deadline) {
            const auto left
                = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (!connection.waitReadable(static_cast<int>(left))) return false;
            switch (connection.readInteger(1)) {
            case 0:
                readUpdate();
                return true;
            case 2:
                break; // bell
            case 3: { // cut text
                connection.readInteger(3);
                Bytes text(connection.readInteger(4));
                connection.read(text);
                break;
            }
            default:
                throw std::runtime_error("an unknown message");
            }
        }
        return false;
    }
    std::uint32_t at(int x, int y) const { return pixels[static_cast<std::size_t>(y * width + x)]; }
    std::uint64_t bytesReceived() const { return connection.received; }

    int width = 0;
    int height = 0;

private:
    void readUpdate()
    {
        connection.readInteger(1);
        const auto rectangles = connection.readInteger(2);
        // Asked for at once, so that the server works on the next update while this one is decoded.
        request(true);
        for (std::uint32_t i = 0; i < rectangles; ++i) {
            const auto x = static_cast<int>(connection.readInteger(2));
            const auto y = static_cast<int>(connection.readInteger(2));
            const auto w = static_cast<int>(connection.readInteger(2));
            const auto h = static_cast<int>(connection.readInteger(2));
            const auto encoding = static_cast<std::int32_t>(connection.readInteger(4));
            if (encoding == rawEncoding)
                readRaw(x, y, w, h);
            else if (encoding == zrleEncoding)
                readZrle(x, y, w, h);
            else
                throw std::runtime_error("an encoding that was not asked for");
        }
    }
    void readRaw(int x, int y, int w, int h)
    {
        for (int row = y; row < y + h; ++row)
            connection.read(
                {reinterpret_cast<std::uint8_t*>(&pixels[static_cast<std::size_t>(row * width + x)]),
                    static_cast<std::size_t>(w) * 4});
    }
    void readZrle(int x, int y, int w, int h)
    {
        compressed.resize(connection.readInteger(4));
        connection.read(compressed);
        plain.resize(static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 4 + 65536);
        zlib.next_in = compressed.data();
        zlib.avail_in = static_cast<uInt>(compressed.size());
        zlib.next_out = plain.data();
        zlib.avail_out = static_cast<uInt>(plain.size());
        if (inflate(&zlib, Z_SYNC_FLUSH) < 0) throw std::runtime_error("bad ZRLE");
        position = 0;
        for (int top = y; top < y + h; top += tileSize) {
            for (int left = x; left < x + w; left += tileSize)
                readTile(left, top, std::min(tileSize, x + w - left), std::min(tileSize, y + h - top));
        }
    }
    std::uint32_t pixel()
    {
        const std::uint32_t value = plain[position] | static_cast<std::uint32_t>(plain[position + 1]) << 8
            | static_cast<std::uint32_t>(plain[position + 2]) << 16;
        position += 3;
        return value;
    }
    int runLength()
    {
        int length = 1;
        std::uint8_t byte = 0;
        do {
            byte = plain[position++];
            length += byte;
        } while (byte == 255);
        return length;
    }
    void readTile(int left, int top, int w, int h)
    {
        const int kind = plain[position++];
        std::array<std::uint32_t, 128> palette{};
        const int paletteSize = kind & 127;
        for (int i = 0; i < paletteSize; ++i) palette[static_cast<std::size_t>(i)] = pixel();
        int runLeft = 0;
        std::uint32_t colour = palette[0];
        const int bits = paletteSize <= 2 ? 1 : paletteSize <= 4 ? 2 : 4;
        for (int y = top; y < top + h; ++y) {
            int bitsLeft = 0;
            for (int x = left; x < left + w; ++x) {
                if (kind == 0)
                    colour = pixel();
                else if (kind > 1 && kind <= 16) {
                    if (bitsLeft == 0) {
                        bitsLeft = 8;
                        ++position;
                    }
                    bitsLeft -= bits;
                    colour = palette[static_cast<std::size_t>(
                        plain[position - 1] >> bitsLeft & ((1 << bits) - 1))];
                } else if (kind >= 128 && runLeft == 0) {
                    if (kind == 128) {
                        colour = pixel();
                        runLeft = runLength();
                    } else {
                        const auto index = plain[position++];
                        colour = palette[index & 127];
                        runLeft = index & 128 ? runLength() : 1;
                    }
                }
                if (kind >= 128) --runLeft;
                pixels[static_cast<std::size_t>(y * width + x)] = colour;
            }
        }
    }

    Connection connection;
    z_stream zlib{};
    std::vector<std::uint32_t> pixels;
    Bytes compressed;
    Bytes plain;
    std::size_t position = 0;
};

double percentile(std::vector<double> values, double share)
{
    if (values.empty()) return 0;
    std::ranges::sort(values);
    return values[std::min(
        values.size() - 1, static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

void measureLatency(RfbClient& client, int trials)
{
    std::mt19937 random(1); // the same pauses in every run
    std::uniform_int_distribution pauseMs(120, 250);
    std::vector<double> results;
    while (client.update(1000)) {} // until the picture stands still
    for (int trial = 0; trial < trials; ++trial) {
        while (client.update(pauseMs(random))) {}
        const auto before = client.at(client.width / 2, client.height / 2);
        const auto start = Clock::now();
        client.key(spaceKeysym, true);
        while (client.update(1000)) {
            if (client.at(client.width / 2, client.height / 2) == before) continue;
            results.push_back(millisecondsSince(start));
            break;
        }
        client.key(spaceKeysym, false);
    }
    std::printf("{\"inputToPixelMs\": {\"p50\": %.2f, \"p95\": %.2f, \"p99\": %.2f, \"n\": %zu}}\n",
        percentile(results, 0.5), percentile(results, 0.95), percentile(results, 0.99), results.size());
}

void measureMotion(RfbClient& client, double seconds)
{
    for (int i = 0; i < 30; ++i) client.update(1000);
    const auto start = Clock::now();
    const auto bytesBefore = client.bytesReceived();
    int distinct = 0;
    int torn = 0;
    std::optional<std::uint32_t> last;
    while (millisecondsSince(start) < seconds * 1000) {
        if (!client.update(1000)) break;
        const auto luma = [&](int x, int y) { return static_cast<int>(client.at(x, y) >> 8 & 0xFF); };
        const auto mark = pelorin::FrameMark::read(client.width, client.height, luma);
        torn += !mark.isWhole;
        if (mark.number == last) continue;
        last = mark.number;
        ++distinct;
    }
    const double took = millisecondsSince(start) / 1000;
    std::printf("{\"distinctFps\": %.1f, \"torn\": %d, \"mbps\": %.1f}\n", distinct / took, torn,
        static_cast<double>(client.bytesReceived() - bytesBefore) * 8 / took / 1e6);
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 3) return std::fprintf(stderr, "usage: %s PORT latency|motion\n", arguments[0]), 2;
    try {
        RfbClient client(static_cast<std::uint16_t>(std::atoi(arguments[1])));
        if (std::string_view(arguments[2]) == "latency")
            measureLatency(client, 200);
        else
            measureMotion(client, 10);
    } catch (const std::exception& error) {
        return std::fprintf(stderr, "%s\n", error.what()), 1;
    }
    return 0;
}
