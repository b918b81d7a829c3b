#include "uri_opener.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QUrl>
#include <utility>

#include "exec_failure.h"
#include "support.h"
#include "task_finder.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// A program that still runs by then shows the document itself: it will not report a failure.
constexpr int kSettledMs = 5000;
constexpr int kShownOfUri = 200;

Error HandlerError(const QString& program, const QString& why) {
  return {Error::kUriHandlerFailed,
          QString("the URI cannot be opened: the program '%1' (RUNTIME_MANAGER_URI_HANDLER sets "
                  "another) %2")
              .arg(program, why)};
}

// A QUrl that is made from a text leaks itself when memory runs out for its parts; one that is there
// already does not.
bool IsUrl(const QString& uri) {
  QUrl url;
  url.setUrl(uri, QUrl::StrictMode);
  return url.isValid();
}

}  // namespace

Error CheckUri(const QString& uri) {
  // The characters of RFC 3986; QUrl alone would let more pass.
  static const QRegularExpression form(
      R"(\A[A-Za-z][A-Za-z0-9+.-]*:(?:[A-Za-z0-9._~:/?#\[\]@!$&'()*+,;=-]|%[0-9A-Fa-f]{2})+\z)");
  if (form.match(uri).hasMatch() && IsUrl(uri)) {
    return {};
  }
  return {Error::kInvalidArgument, QString("'%1' cannot be opened: it is not a valid absolute URI")
                                       .arg(EscapedHead(uri.toUtf8(), kShownOfUri))};
}

UriOpener::UriOpener(std::function<void(const Error&)> done) : done_(std::move(done)) {}

// The object is whole before the program starts, so that its destructor lets the program go when
// there is no memory for the rest.
UriOpener::UriOpener(const QString& uri, std::function<void(const Error&)> done)
    : UriOpener(std::move(done)) {
  const QString chosen = QString::fromUtf8(Variable("RUNTIME_MANAGER_URI_HANDLER"));
  program_ = chosen.isEmpty() ? QStringLiteral("xdg-open") : chosen;
  settled_.setSingleShot(true);
  const Error error = Start(uri);
  QObject::connect(&settled_, &QTimer::timeout, &settled_, [this, error] { Finish(error); });
  StartTimer(settled_, error.isError() ? 0 : kSettledMs);
}

UriOpener::~UriOpener() {
  if (process_ != nullptr) {
    process_->LetGo();
  }
}

Error UriOpener::Start(const QString& uri) {
  Error bad_uri = CheckUri(uri);
  if (bad_uri.isError()) {
    return bad_uri;
  }
  SpawnRequest request;
  path_ = FindProgram(program_).toUtf8();
  request.program = path_;
  if (request.program.isEmpty()) {
    return HandlerError(program_, "is not in the folders of PATH");
  }
  request.arguments = {uri.toUtf8()};
  // What shows the document is the user's, and outlives this process with a stream that works.
  request.dies_with_starter = false;
  request.capture_stderr = false;
  ChildProcess::Callbacks callbacks;
  callbacks.on_ended = [this](const ChildEnd& end) { OnEnded(end); };
  const int error_number = ChildProcess::Start(request, std::move(callbacks), &process_);
  return error_number == 0
             ? Error()
             : HandlerError(program_, "cannot be started: " + ErrnoText(error_number));
}

void UriOpener::OnEnded(const ChildEnd& end) {
  const auto failure = [this, &end] {
    return HandlerError(program_, end.exec_error != 0
                                      ? "fails: " + ExecFailureText(path_, end.exec_error)
                                      : end.how);
  };
  const bool succeeded = end.exec_error == 0 && end.succeeded;
  Finish(succeeded ? Error() : MadeOr(failure, OutOfMemory(Error::kUriHandlerFailed)));
}

void UriOpener::Finish(const Error& error) {
  settled_.stop();
  if (const auto done = std::exchange(done_, nullptr)) {
    done(error);
  }
}

}  // namespace RuntimeManager::host
