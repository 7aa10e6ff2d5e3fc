// The zvxfer program's view of a Kermit exchange.  The Kermit entries
// return 0 whatever happened, so the program watches the packets that pass
// the line both ways (what it wrote and what it read) and judges the
// outcome from them: error packets and their texts, files ended and
// acknowledged, files discarded, and whether the batch was closed.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zvxfer::cli {

class KermitWatch {
  public:
    // `sending`: this end sends the files (its F, Z and B packets are the
    // ones the far end acknowledges).
    explicit KermitWatch(bool sending);

    // Bytes this end wrote to the line, and bytes it read from it, in the
    // order they passed.
    void Written(const uint8_t *data, std::size_t length);
    void Read(const uint8_t *data, std::size_t length);

    struct Verdict {
        bool ok = false;
        int files = 0;   // files that went through whole
        std::string why; // when not ok: what went wrong, safe to print
    };
    // `names`: the names the sender was given (0 when receiving); fewer
    // files acknowledged than names means some were passed over.
    Verdict Judge(int names) const;

    // What the watch has seen so far.
    int FilesStarted() const { return started_; }
    int FilesCompleted() const { return completed_; }
    int FilesDiscarded() const { return discarded_; }
    bool BatchEnded() const { return batchEnded_; }
    int CheckType() const { return check_; }
    const std::optional<std::string> &OurError() const { return ourError_; }
    const std::optional<std::string> &TheirError() const { return theirError_; }

  private:
    // Longest packet two characters of extended length can announce, with
    // its seven header characters.
    static constexpr std::size_t kLongest = 94 * 95 + 94 + 7;

    // Finds packets in one direction's bytes: a MARK, then as many
    // characters as the length field says.
    struct Framer {
        std::array<uint8_t, kLongest> packet{};
        std::size_t count = 0; // characters stored, MARK included; 0: looking for a MARK
        std::size_t total = 0; // characters of the whole packet; 0: not known yet
    };

    void Feed(Framer &framer, bool ours, const uint8_t *data, std::size_t length);
    // A complete frame: its header and block check checked, then its meaning.
    void Frame(const Framer &framer, bool ours);
    bool CheckOk(const uint8_t *packet, std::size_t checked, const uint8_t *check, int type) const;
    void Packet(bool ours, char type, int seq, const uint8_t *data, std::size_t length);

    bool sending_;
    Framer ours_, theirs_;
    // Block-check type of the packets after the S and its acknowledgement;
    // those two use type 1.
    int check_ = 1;
    bool initDone_ = false;
    std::optional<char> initCheck_; // the check type the S asked for
    bool initSeen_ = false;

    struct File {
        int fileSeq = -1;
        int endSeq = -1; // the Z packet's number, -1 before it
        bool discard = false;
        bool done = false;
    };
    std::optional<File> file_;
    int started_ = 0;
    int completed_ = 0;
    int discarded_ = 0;
    int batchSeq_ = -1;
    bool batchEnded_ = false;
    std::optional<std::string> ourError_, theirError_;
};

} // namespace zvxfer::cli
