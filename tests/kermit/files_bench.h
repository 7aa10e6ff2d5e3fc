// A Kermit engine with its record and port, receiving into `folder`.
#pragma once
#include <memory>
#include <string>
#include <utility>

#include "kermit/engine.h"

namespace zvxfer::kermit {

struct Bench {
    explicit Bench(std::string folder) : folderText(std::move(folder)) {
        port.ReceiveFolder = folderText.c_str();
        record.Port = &port;
        record.Protocol = Kermit;
        engine->record = &record;
    }
    KermitEngine &operator*() { return *engine; }
    KermitEngine *operator->() { return engine.get(); }
    std::string folderText;
    XferPort port{};
    XferRecord record{};
    std::unique_ptr<KermitEngine> engine = std::make_unique<KermitEngine>();
};

} // namespace zvxfer::kermit
