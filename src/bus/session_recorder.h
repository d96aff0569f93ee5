// Recording and replay of the bytes read from the sound bus, so a game session can be
// replayed against a sound set without the machine.
//
// File format (text): first line "# bus recording v1 protocol=<NAME>", then one line per
// byte "<ms since recording start> 0x<HH>". Lines starting with '#' are comments.
//
// Threads: recordByte() runs on the capture's interrupt thread (and on the main thread
// for replayed bytes) and only appends to a memory buffer under recMutex_, a lock that is
// never held across file I/O, so capture never waits on the disk. The main loop's
// updatePlayback() takes the buffer under recMutex_ once a second and writes and flushes
// it under fileMutex_ alone, and delivers replayed bytes through Pincom::triggerInterrupt
// on the main thread. start/stop may come from the main thread or the HTTP thread.
//
// A replay keeps the recorded spacing between bytes: when the main loop was held up
// (a set switch, a slow disk) for longer than kMaxReplayLagMs, the rest of the schedule
// moves by the delay instead of delivering every overdue byte at once, which would
// overrun the sound ring.
#pragma once

#include <atomic>
#include <cstdint>
#include <istream>
#include <mutex>
#include <string>
#include <vector>

#include "base/handles.h"

namespace korvo {

class Pincom;

class SessionRecorder {
 public:
  static constexpr unsigned kFlushIntervalMs = 1000;
  static constexpr unsigned kMaxReplayLagMs = 20;

  struct Event {
    unsigned ms;   // since the start of the recording
    uint8_t byte;
  };
  // Reads a recording: comments and blank lines skipped, a header naming another
  // protocol than `currentProtocol` logged WARN, malformed lines logged WARN with their
  // line number (in `name`) and counted in *skipped. Times never run backwards.
  static std::vector<Event> parseRecording(std::istream& in, const std::string& name, int currentProtocol,
                                           int* skipped);

  explicit SessionRecorder(Pincom& pincom);
  // Closes a running recording (its bytes are written first).
  ~SessionRecorder();
  SessionRecorder(const SessionRecorder&) = delete;
  SessionRecorder& operator=(const SessionRecorder&) = delete;

  // -R and /recording/start: replaces `path` atomically by a file holding the header (a
  // file of that name stays as it was when this fails). A running recording is closed
  // first. False with an ERROR line when the file cannot be created.
  bool startRecording(const std::string& path);
  // Writes what is pending and closes; false when no recording runs.
  bool stopRecording();
  bool isRecording() const { return recording_.load(); }
  // True once anything was recorded since start.
  bool recordedSomething() const { return recordedSomething_.load(); }
  std::string recordingFile() const;
  // The capture's hook: appends one byte with its time.
  void recordByte(uint8_t b);

  // -P and uploaded recordings: reads the whole file; malformed lines are logged with
  // their line number and skipped. False (ERROR line) when the file cannot be read.
  // Replay times count from this call.
  bool startPlayback(const std::string& path);
  void stopPlayback();
  bool isReplaying() const { return replaying_.load(); }
  // Bytes of the running replay delivered so far / in total.
  std::size_t replayPosition() const;
  std::size_t replayLength() const;

  // Main loop: delivers every replayed byte whose time has come, and writes the
  // recording buffer to its file once a second.
  void updatePlayback(unsigned now);

 private:
  // Takes the pending bytes under recMutex_, writes them under fileMutex_.
  void writePending();
  // The replayed bytes due at `now` (playMutex_ held), moving the schedule after a stall.
  std::vector<uint8_t> takeDueLocked(unsigned now);

  Pincom& pincom_;

  std::mutex fileMutex_;  // guards file_; taken before recMutex_, never inside it
  FileHandle file_;

  mutable std::mutex recMutex_;  // guards recPath_, pending_, recStart_, lastFlush_
  std::string recPath_;
  std::vector<Event> pending_;
  unsigned long recStart_ = 0;
  unsigned long lastFlush_ = 0;
  std::atomic<bool> recording_{false};
  std::atomic<bool> recordedSomething_{false};

  mutable std::mutex playMutex_;  // guards the replay fields below
  std::string playPath_;
  std::vector<Event> events_;
  std::size_t next_ = 0;
  unsigned long playStart_ = 0;
  std::atomic<bool> replaying_{false};
};

}  // namespace korvo
