// CLumetEventHandler: how an item reports to its owner, the play queue. The
// item holds a non-owning pointer to it; the base versions do nothing.
//
// OnPlayStarted and OnPlayStopped run on the item's playing thread as it
// begins and ends; OnPlayedOnce after each finished turn, on the playing
// thread or on the thread that delivers the movie player's end-of-pass
// callback. Declared here, beside the item, so that the queue depends on the
// item and never the reverse.
#pragma once

namespace lumets {

class CLumetEventHandler {
  public:
    CLumetEventHandler() = default;
    CLumetEventHandler(const CLumetEventHandler&) = delete;
    CLumetEventHandler& operator=(const CLumetEventHandler&) = delete;

    virtual void OnPlayStarted() {}
    virtual void OnPlayedOnce() {}
    virtual void OnPlayStopped() {}
    virtual ~CLumetEventHandler() = default;
};

}  // namespace lumets
