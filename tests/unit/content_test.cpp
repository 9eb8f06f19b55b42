// What the source host's content sender says, read back (SenderFrames), and
// archives brought home from it over streams, driven here by a sender of the
// test's own (ContentReceiver): ranges, continued parts, lost streams and
// archives unlike their listing, in milliseconds.
#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <fstream>
#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "vantrel/content_frames.h"
#include "vantrel/content_receiver.h"

namespace fs = boost::filesystem;
using namespace velmo;

namespace {

// The events of text fed in pieces of step bytes, as "kind:value" words;
// data that the pieces split is one word.
std::string framesOf(const std::string& text, std::size_t step) {
    static const char* const kinds[] = {"opened", "data", "ended", "failed", "garbled"};
    SenderFrames frames;
    std::string seen;
    bool inData = false;
    for (std::size_t at = 0; at < text.size(); at += step)
        for (const SenderEvent& e : frames.feed(text.data() + at, std::min(step, text.size() - at))) {
            if (e.kind != SenderEvent::data || !inData) seen += std::string(seen.empty() ? "" : " ") + kinds[e.kind];
            if (e.kind == SenderEvent::opened) seen += ":" + std::to_string(e.size);
            if (e.kind == SenderEvent::data) seen += (inData ? "" : ":") + std::string(e.bytes, e.length);
            if (e.kind == SenderEvent::failed) seen += ":" + e.text;
            inData = e.kind == SenderEvent::data;
        }
    return seen;
}

TEST(SenderFrames, EventsWhateverThePieces) {
    const std::string tooLong(SenderFrames::kMaxHeader + 1, 'x');
    const struct {
        std::string text;
        std::string events;
    } cases[] = {
        {"S 5\nD 3\nabcD 2\ndeE\n", "opened:5 data:abcde ended"},
        {"E No such file\nS 0\nE\n", "failed:No such file opened:0 ended"},
        {"S 5\nE read error\n", "opened:5 failed:read error"},
        {"D 3\nabc", "garbled"},                       // bytes of no open file
        {"S 5\nD 0\n", "opened:5 garbled"},            // an empty block
        {"S 5\nD 16777217\n", "opened:5 garbled"},     // a block beyond the bound
        {"S -1\n", "garbled"},
        {"S 1\nD 1\nxE\nS 1\nE\nE\n", "opened:1 data:x ended opened:1 ended garbled"},
        {tooLong, "garbled"},
    };
    for (const auto& c : cases)
        for (std::size_t step : {std::size_t(1), std::size_t(3), c.text.size()})
            EXPECT_EQ(c.events, framesOf(c.text, step)) << c.text << " in pieces of " << step;
}

// A sender of the test's own: answers requests from files it holds.
struct FakeSender {
    std::map<std::string, std::string> files;
    std::string answer(const std::string& requests) const {
        std::string out;
        std::istringstream in(requests);
        for (std::string request; std::getline(in, request, '\0');) {
            std::istringstream words(request);
            long long from = 0, length = 0;
            std::string name;
            words >> from >> length >> name;
            const auto file = files.find(name);
            if (file == files.end()) {
                out += "E No such file or directory\n";
                continue;
            }
            out += "S " + std::to_string(file->second.size()) + "\n";
            const std::string bytes = file->second.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(length));
            for (std::size_t at = 0; at < bytes.size(); at += 5000)
                out += "D " + std::to_string(std::min<std::size_t>(5000, bytes.size() - at)) + "\n" + bytes.substr(at, 5000);
            out += "E\n";
        }
        return out;
    }
};

class Receiving : public ::testing::Test {
protected:
    void SetUp() override {
        path = fs::temp_directory_path() / fs::unique_path("vantrel-receive-%%%%%%");
        fs::create_directories(path);
        dir = Directory::open(path.string());
        std::mt19937 random(7);
        for (const char* name : {"big", "small"}) {
            std::string& bytes = sender.files[name];
            bytes.resize(name == std::string("big") ? 100000 : 3000);
            for (char& c : bytes) c = static_cast<char>(random());
            std::istringstream in(bytes);
            records.emplace_back(name, static_cast<int64_t>(bytes.size()), countMd5Sum(in));
        }
    }
    void TearDown() override { fs::remove_all(path); }

    std::string local(const std::string& name) const {
        std::ifstream in((path / name).string(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    // Runs the receiver over streams (stream lose is lost once, after half
    // an answer, or with atEnd just before the end of its first piece) until
    // it finished; returns the requests, one line each.
    std::string receive(std::vector<int64_t> from, int streams, int lose = -1, bool atEnd = false) {
        std::vector<ContentReceiver::Archive> archives;
        for (std::size_t i = 0; i < records.size(); ++i)
            archives.push_back(ContentReceiver::Archive{&records[i], records[i].name, dir, from[i]});
        ContentReceiver receiver(archives, streams, streams > 1 ? 16384 : 0, "host", ContentReceiver::Events());
        std::string asked;
        for (int pass = 0; !receiver.finished() && pass < 1000; ++pass)
            for (int s = 0; s < streams; ++s) {
                const std::string requests = receiver.nextRequests(s);
                for (char c : requests) asked += c ? c : '\n';
                const std::string answer = sender.answer(requests);
                const std::size_t firstEnd = sender.answer(requests.substr(0, requests.find('\0') + 1)).size() - 2;
                const std::size_t cut = s != lose ? answer.size() : atEnd ? firstEnd : answer.size() / 2;
                for (std::size_t at = 0; at < cut; at += 777)
                    receiver.received(s, answer.data() + at, std::min<std::size_t>(777, cut - at));
                if (s == lose) {
                    receiver.lost(s);
                    lose = -1;
                }
            }
        EXPECT_TRUE(receiver.finished());
        return asked;
    }

    fs::path path;
    Directory dir;
    FakeSender sender;
    std::vector<DumpFile> records;
};

TEST_F(Receiving, RangesOverStreamsAndALostStream) {
    const bool ranges = ::setxattr(path.c_str(), "user.vantrel.test", "1", 1, 0) == 0;
    for (bool atEnd : {false, true}) {
        fs::remove(path / "big");
        fs::remove(path / "small");
        // The first stream asks for all there is and loses it: the others bring it.
        const std::string asked = receive({0, 0}, 3, 0, atEnd);
        EXPECT_EQ(sender.files["big"], local("big"));
        EXPECT_EQ(sender.files["small"], local("small"));
        EXPECT_FALSE(fs::exists(path / "big.part"));
        // The big archive in pieces of 16 KiB at most, which cover it; what
        // the lost stream had not received is asked for again, from where its
        // bytes ended (not from a piece's start).
        std::map<std::string, std::vector<std::pair<int64_t, int64_t>>> pieces;
        std::istringstream lines(asked);
        for (std::string name; !lines.eof();) {
            int64_t from = 0, length = 0;
            if (lines >> from >> length >> name) pieces[name].emplace_back(from, length);
        }
        int64_t covered = 0;
        bool continued = false;
        std::sort(pieces["big"].begin(), pieces["big"].end());
        for (const auto& piece : pieces["big"]) {
            EXPECT_LE(piece.first, covered) << asked;
            EXPECT_LE(piece.second, ranges ? 16384 : 100000) << asked;
            covered = std::max(covered, piece.first + piece.second);
            continued = continued || piece.first % 16384 != 0;
        }
        EXPECT_EQ(100000, covered) << asked;
        // Lost just before its first piece's end, the stream kept that piece
        // whole (only its end mark was missing): it is not asked again.
        const auto& big = pieces["big"];
        EXPECT_TRUE(atEnd ? std::count(big.begin(), big.end(), std::make_pair<int64_t, int64_t>(0, ranges ? 16384 : 100000)) == 1
                          : continued)
            << asked;
        EXPECT_EQ(2u, pieces["small"].size()) << asked;
    }
}

TEST_F(Receiving, ContinuedPartsAndPartsThatDoNotProve) {
    // A part that holds the archive's first bytes is continued from its end.
    std::ofstream((path / "big.part").string(), std::ios::binary) << sender.files["big"].substr(0, 60000);
    EXPECT_EQ("60000 40000 big\n0 3000 small\n", receive({60000, 0}, 1));
    EXPECT_EQ(sender.files["big"], local("big"));
    // One that does not is dropped, and the archive comes from its first byte.
    fs::remove(path / "big");
    std::ofstream((path / "big.part").string(), std::ios::binary) << std::string(60000, 'x');
    EXPECT_EQ("60000 40000 big\n0 3000 small\n0 100000 big\n", receive({60000, 0}, 1));
    EXPECT_EQ(sender.files["big"], local("big"));
}

TEST_F(Receiving, ArchivesUnlikeTheirListingAreNotKept) {
    const struct {
        std::string sum;
        int64_t size;
        std::string message;
    } cases[] = {
        {std::string(32, '0'), 3000, "ContentFileMismatch"},
        {"", 2000, "more than 2000"},
        {"", 4000, "4000 bytes with MD5 sum (none) were listed, 3000 bytes"},
    };
    for (const auto& c : cases) {
        records[1] = DumpFile("small", c.size, c.sum);
        std::string failure;
        try {
            receive({0, 0}, 1);
        } catch (const ExTraceable& e) {
            failure = formatPlainTextMessage(e);
        }
        EXPECT_NE(std::string::npos, failure.find(c.message)) << failure;
        EXPECT_FALSE(fs::exists(path / "small") || fs::exists(path / "small.part")) << c.message;
    }
    // The sender cannot open it.
    sender.files.erase("small");
    records[1] = DumpFile("small", 3000, "");
    try {
        receive({0, 0}, 1);
        ADD_FAILURE() << "a missing archive passed";
    } catch (const ExTraceable& e) {
        EXPECT_NE(std::string::npos, formatPlainTextMessage(e).find("small: No such file or directory"));
    }
}

}  // namespace
