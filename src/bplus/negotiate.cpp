// The transport-parameter exchange: the service's '+' packet is answered
// with ours, and what both sides can do is taken once ours is acknowledged.
#include <algorithm>

#include "bplus/bplus.h"
#include "core/core.h"

namespace zvxfer::bplus {

namespace {

constexpr int32_t kParamsLength = 18;
// Offsets in the packet.
constexpr int kSendWindowAt = 1, kReceiveWindowAt = 2, kBlockAt = 3, kCheckAt = 4,
              kQuoteLevelAt = 5, kAltSeqAt = 6, kLowQuotesAt = 7, kHighQuotesAt = 11,
              kDownloadResumeAt = 15, kUploadResumeAt = 16, kFileInfoAt = 17;
constexpr uint8_t kQuoteLow = 0x01, kQuoteHigh = 0x10;
// The largest block size the packet buffer holds (128 x 8 + 1 bytes).
constexpr int8_t kMaxBlock = 8;

// How likely a character is to upset a line when sent bare: the level a
// quote set reaches is its highest one.
int QuoteLevel(int c) {
    switch (c) {
    case 0x03:
    case 0x05:
    case 0x10:
    case 0x11:
    case 0x13:
    case 0x15:
        return 0;
    case 0x00:
        return 1;
    case 0x91:
    case 0x93:
        return 2;
    default:
        return 3;
    }
}

// The quote-level byte for a level.
uint8_t QuoteLevelByte(int level) {
    static constexpr uint8_t kByte[] = {1, 0, 2, 3};
    return kByte[level];
}

// Both sides' values compare as signed bytes; the smaller wins.
int8_t Smaller(uint8_t theirs, uint8_t ours) {
    return std::min(static_cast<int8_t>(theirs), static_cast<int8_t>(ours));
}

void BuildOwn(XferRecord *r, uint8_t *own) {
    const BPlusLink *link = Link(r);
    own[0] = '+';
    own[kSendWindowAt] = static_cast<uint8_t>(SendWindow(r));
    own[kReceiveWindowAt] = static_cast<uint8_t>(ReceiveWindow(r));
    own[kBlockAt] = static_cast<uint8_t>(r->BlockSize / 128);
    own[kCheckAt] = static_cast<uint8_t>(RequestedCheck(r));
    own[kQuoteLevelAt] = 0;
    own[kAltSeqAt] = static_cast<uint8_t>(AltSeqParam(r));
    for (int c = 0; c < 32; ++c) {
        const uint8_t bit = static_cast<uint8_t>(0x80 >> (c % 8));
        if (link->QuoteMask[c] & kQuoteLow) own[kLowQuotesAt + c / 8] |= bit;
        if (link->QuoteMask[c] & kQuoteHigh) own[kHighQuotesAt + c / 8] |= bit;
    }
    own[kDownloadResumeAt] = static_cast<uint8_t>(DownloadResume(r));
    own[kUploadResumeAt] = static_cast<uint8_t>(UploadResume(r));
    own[kFileInfoAt] = static_cast<uint8_t>(FileInfo(r));
}

// The highest level of the characters our quote set holds.
int OwnQuoteLevel(const BPlusLink *link) {
    int level = 0;
    for (int c = 0; c < 32; ++c) {
        if (link->QuoteMask[c] & kQuoteLow) level = std::max(level, QuoteLevel(c));
        if (link->QuoteMask[c] & kQuoteHigh) level = std::max(level, QuoteLevel(0x80 + c));
    }
    return level;
}

// The service's quote set joins ours.
void MergeQuotes(BPlusLink *link, const uint8_t *theirs) {
    for (int c = 0; c < 32; ++c) {
        const uint8_t bit = static_cast<uint8_t>(0x80 >> (c % 8));
        if (theirs[kLowQuotesAt + c / 8] & bit) link->QuoteMask[c] |= kQuoteLow;
        if (theirs[kHighQuotesAt + c / 8] & bit) link->QuoteMask[c] |= kQuoteHigh;
    }
}

} // namespace

void BPlusNegotiate(XferRecord *r) {
    BPlusLink *link = Link(r);
    uint8_t own[kParamsLength] = {};
    BuildOwn(r, own);

    // A short packet leaves the parameters it lacks at 0.
    uint8_t *theirs = r->Buffer;
    const int32_t received = link->RxLength;
    for (int32_t i = received; i < kParamsLength; ++i) theirs[i] = 0;

    const int8_t window = Smaller(theirs[kReceiveWindowAt], own[kSendWindowAt]);
    // At least one data byte after the type, at most what the buffer holds.
    const int8_t block = std::clamp<int8_t>(Smaller(theirs[kBlockAt], own[kBlockAt]), 1, kMaxBlock);
    int8_t check = Smaller(theirs[kCheckAt], own[kCheckAt]);
    if (check < 0 || check > 3) check = 0; // a method neither side knows: checksum
    AltSeqParam(r) = Smaller(theirs[kAltSeqAt], own[kAltSeqAt]);
    DownloadResume(r) = Smaller(theirs[kDownloadResumeAt], own[kDownloadResumeAt]);
    UploadResume(r) = Smaller(theirs[kUploadResumeAt], own[kUploadResumeAt]);
    FileInfo(r) = Smaller(theirs[kFileInfoAt], own[kFileInfoAt]);

    int level = 0;
    if (received < kParamsLength) {
        level = OwnQuoteLevel(link);
    } else {
        MergeQuotes(link, theirs);
    }
    // Our '+' goes out with every control character quoted, whatever the
    // service asked for: it may not have the new set yet.
    link->QuoteMode = 3;
    own[kQuoteLevelAt] = QuoteLevelByte(level);

    XferStatus(r, 0, "BPlusNegotiate: window %d, block %d, check %d", window, block, check);
    if (BPlusSendNumbered(r, kParamsLength, own) == 0 && BPlusWaitAllAcks(r) == 0) {
        // Only now does the service know what we agreed to.
        link->CheckMethod = check;
        r->BlockSize = 128 * block + 1;
        link->AltSeq = r->RxSeq;
        SendWindow(r) = window;
    }
    link->QuoteMode = 4;
}

} // namespace zvxfer::bplus
