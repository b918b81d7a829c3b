// RuntimeManager::Error: how an operation of the runtime manager went.
#ifndef RUNTIME_MANAGER_ERROR_H
#define RUNTIME_MANAGER_ERROR_H

#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <utility>

namespace RuntimeManager {

// A value: no error, or a code with a text for the person who meets it. Any thread.
class Error {
 public:
  // The codes of the platform's own errors. Another implementation may use others; 0 alone is
  // fixed: it means success everywhere. An error that ends a connection that had begun has a code
  // in the range that JSON-RPC leaves to servers, so that it can be passed on in an answer.
  enum Code : int {
    kNoError = 0,
    kInvalidArgument = 1,    // a name, an argument or a URI that cannot be used
    kTaskNotFound = 2,       // no executable of that name in the folders of tasks
    kRuntimeFolder = 3,      // the folder of the sockets cannot be made, or is not safe to use
    kStartFailed = 4,        // the program could not be started
    kWrongState = 5,         // it does not fit: started twice, stopped unstarted, in a forked copy
    kStopFailed = 6,         // the process cannot be signalled
    kConnectFailed = 8,      // nobody listens on the socket, or it cannot be reached
    kPeerRefused = 10,       // the peer belongs to another user
    kNotATask = 13,          // this process has no task socket
    kNoSuchIntent = 14,      // nobody owns the intent
    kIntentFailed = 15,      // the owner died, or dropped the invocation, before it answered
    kUriHandlerFailed = 16,  // the program that opens URIs failed or cannot be run

    kTaskExited = -32001,      // a task ended by itself, with whatever status
    kTaskKilled = -32002,      // a task was killed by a signal
    kConnectionLost = -32003,  // the peer is gone, or the socket failed
    kMessageTooLong = -32004,  // a message is over the bound of one message
    kQueueFull = -32005,       // the peer does not read, and too much waits for it
  };

  Error() = default;
  Error(int code, QString message) : code_(code), message_(std::move(message)) {}

  // True for every code but 0.
  bool isError() const { return code_ != kNoError; }
  int code() const { return code_; }
  // Says what failed, on which object, why, and what to do about it; empty without an error.
  QString message() const { return message_; }

 private:
  int code_ = kNoError;
  QString message_;
};

}  // namespace RuntimeManager

Q_DECLARE_METATYPE(RuntimeManager::Error)

#endif  // RUNTIME_MANAGER_ERROR_H
