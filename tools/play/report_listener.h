// Shows records as sessions take them, decoded by the files that ship, and writes them to a capture file.
#pragma once

#include "host/tracing/capture_file.h"
#include "host/tracing/decode.h"
#include "tools/play/player.h"

#include <memory>

namespace play {

class ReportListener final : public host::tracing::Tracing::Listener {
public:
    // Whether a run with these options shows or captures any report.
    [[nodiscard]] static bool IsWanted(const PlayOptions& options);

    // Opens the sessions that the options ask for and listens to them for as long as it exists. Throws when the
    // decoding files or the capture file are not to be had.
    ReportListener(const PlayOptions& options, host::tracing::Tracing& tracing, Timeline& timeline);
    ~ReportListener() override;
    ReportListener(const ReportListener&) = delete;
    ReportListener& operator=(const ReportListener&) = delete;

    // The run is over: completes the capture file.
    void Finish();

    void OnEvent(const host::tracing::CapturedEvent& event) override;
    void OnMessage(const host::tracing::CapturedMessage& message) override;

private:
    host::tracing::Tracing& tracing_;
    host::tracing::Manifest manifest_;
    host::tracing::MessageFormats formats_;
    std::unique_ptr<host::tracing::CaptureWriter> capture_;
    PlayOptions options_;
    Timeline& timeline_;
};

}  // namespace play
