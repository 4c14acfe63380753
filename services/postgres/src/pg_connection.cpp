#include "pg_connection.hpp"

#include <ka/detail/blocking_scope.hpp>

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace QV::pg {
namespace {

// A wait shorter than this is a normal round trip and not worth telling the event loop about.
constexpr std::chrono::milliseconds kQuickWait{1};

// libpq's messages span lines ("FATAL: ...\nserver closed the connection...\n\tThis probably
// means..."); an error here is one line of a log or of a client's message.
std::string trimmed(const char* message) {
  std::string text;
  bool blank = false;
  bool newline = false;
  for (const char* p = message == nullptr ? "" : message; *p != '\0'; ++p) {
    if (*p == '\n' || *p == '\t' || *p == ' ') {
      blank = true;
      newline = newline || *p == '\n';
      continue;
    }
    if (blank && !text.empty()) {
      text += newline ? "; " : " ";
    }
    blank = newline = false;
    text += *p;
  }
  return text;
}

std::uint32_t readBig32(const char* p) {
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    v = (v << 8) | static_cast<unsigned char>(p[i]);
  }
  return v;
}

}  // namespace

std::string int4(std::int32_t value) {
  const auto v = static_cast<std::uint32_t>(value);
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

std::string int8(std::int64_t value) {
  const auto v = static_cast<std::uint64_t>(value);
  return int4(static_cast<std::int32_t>(v >> 32)) + int4(static_cast<std::int32_t>(v));
}

std::string Result::bytes(int row, int column) const {
  return std::string(PQgetvalue(result_.get(), row, column),
                     static_cast<std::size_t>(PQgetlength(result_.get(), row, column)));
}

std::int32_t Result::int4At(int row, int column) const {
  return static_cast<std::int32_t>(readBig32(PQgetvalue(result_.get(), row, column)));
}

std::int64_t Result::int8At(int row, int column) const {
  const char* p = PQgetvalue(result_.get(), row, column);
  return static_cast<std::int64_t>((std::uint64_t{readBig32(p)} << 32) | readBig32(p + 4));
}

bool Result::boolAt(int row, int column) const {
  return PQgetvalue(result_.get(), row, column)[0] != 0;
}

Connection::Connection(const std::string& conninfo, std::chrono::milliseconds connectTimeout) {
  const std::string seconds =
      std::to_string(std::max<long long>(1, (connectTimeout.count() + 999) / 1000));
  const char* keys[] = {"dbname", "connect_timeout", "fallback_application_name", nullptr};
  const char* values[] = {conninfo.c_str(), seconds.c_str(), "qvuserinfod", nullptr};
  {
    std::optional<ka::detail::BlockingScope> blocking;
    try {
      blocking.emplace();
    } catch (const std::exception&) {
      // The loop has no spare worker to start: connect anyway, as a plain blocking call.
    }
    conn_ = PQconnectdbParams(keys, values, 1);
  }
  if (conn_ == nullptr) {
    throw Failure("out of memory for a connection", true);
  }
  if (PQstatus(conn_) != CONNECTION_OK) {
    const std::string message = trimmed(PQerrorMessage(conn_));
    PQfinish(conn_);
    throw Failure(message, true);
  }
  // The server's notices ("already exists, skipping") are not this program's output.
  PQsetNoticeProcessor(
      conn_, [](void*, const char*) {}, nullptr);
}

Connection::~Connection() {
  PQfinish(conn_);
}

void Connection::lose(const std::string& what) {
  broken_ = true;
  throw Failure(what, true);
}

void Connection::waitFor(short events, Clock::time_point deadline) {
  pollfd fd{PQsocket(conn_), events, 0};
  if (fd.fd < 0) {
    lose("the connection is closed");
  }
  std::optional<ka::detail::BlockingScope> blocking;
  // On the thread reading a transport's sockets, even a quick round trip would hold up every
  // other call: hand the reading over at once.
  if (ka::detail::BlockingScope::handsOffOnEntry()) {
    try {
      blocking.emplace();
    } catch (const std::exception&) {
    }
  }
  for (bool quick = true;; quick = false) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      // The statement may still be running: ask the server to stop it, and never use this
      // connection again, since its state is unknown.
      if (PGcancel* cancel = PQgetCancel(conn_)) {
        char error[256];
        PQcancel(cancel, error, sizeof error);
        PQfreeCancel(cancel);
      }
      lose("the server did not answer in time");
    }
    const int wait = static_cast<int>(quick ? std::min(left, kQuickWait).count() : left.count());
    const int ready = ::poll(&fd, 1, wait);
    if (ready > 0) {
      return;
    }
    if (ready < 0 && errno != EINTR) {
      lose(std::string("waiting for the server failed: ") + std::strerror(errno));
    }
    if (quick && !blocking) {
      try {
        blocking.emplace();
      } catch (const std::exception&) {
        // No spare worker: wait all the same.
      }
    }
  }
}

Result Connection::finish(Clock::time_point deadline) {
  for (;;) {
    const int flushed = PQflush(conn_);
    if (flushed == 0) {
      break;
    }
    if (flushed < 0) {
      lose(trimmed(PQerrorMessage(conn_)));
    }
    waitFor(POLLOUT | POLLIN, deadline);
    if (PQconsumeInput(conn_) == 0) {
      lose(trimmed(PQerrorMessage(conn_)));
    }
  }
  std::optional<Result> last;
  std::optional<Failure> failure;
  for (;;) {
    while (PQisBusy(conn_) != 0) {
      waitFor(POLLIN, deadline);
      if (PQconsumeInput(conn_) == 0) {
        lose(trimmed(PQerrorMessage(conn_)));
      }
    }
    PGresult* next = PQgetResult(conn_);
    if (next == nullptr) {
      break;
    }
    Result result(next);
    const ExecStatusType status = PQresultStatus(next);
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
      last.emplace(std::move(result));
    } else if (!failure) {
      const char* state = PQresultErrorField(next, PG_DIAG_SQLSTATE);
      const bool lost = PQstatus(conn_) != CONNECTION_OK;
      failure.emplace(trimmed(PQresultErrorMessage(next)), lost, state == nullptr ? "" : state);
    }
  }
  if (PQstatus(conn_) != CONNECTION_OK) {
    broken_ = true;
    throw failure ? Failure(failure->what(), true, failure->sqlState())
                  : Failure(trimmed(PQerrorMessage(conn_)), true);
  }
  if (failure) {
    throw *failure;
  }
  if (!last) {
    lose("the server sent no result");
  }
  return std::move(*last);
}

Result Connection::run(const Statement& statement, const std::vector<Param>& params,
                       Clock::time_point deadline) {
  if (broken()) {
    lose("the connection is closed");
  }
  if (prepared_.count(statement.name) == 0) {
    if (PQsendPrepare(conn_, statement.name.c_str(), statement.sql.c_str(),
                      static_cast<int>(params.size()), nullptr) == 0) {
      lose(trimmed(PQerrorMessage(conn_)));
    }
    finish(deadline);
    prepared_.insert(statement.name);
  }
  std::vector<const char*> values;
  std::vector<int> lengths;
  std::vector<int> formats;
  std::vector<std::string> texts;  // text parameters need their terminating zero
  texts.reserve(params.size());
  for (const Param& param : params) {
    if (param.binary) {
      values.push_back(param.bytes.data());
    } else {
      texts.emplace_back(param.bytes);
      values.push_back(texts.back().c_str());
    }
    lengths.push_back(static_cast<int>(param.bytes.size()));
    formats.push_back(param.binary ? 1 : 0);
  }
  if (PQsendQueryPrepared(conn_, statement.name.c_str(), static_cast<int>(params.size()),
                          values.data(), lengths.data(), formats.data(), 1) == 0) {
    lose(trimmed(PQerrorMessage(conn_)));
  }
  return finish(deadline);
}

Result Connection::exec(const std::string& sql, Clock::time_point deadline) {
  if (broken()) {
    lose("the connection is closed");
  }
  if (PQsendQuery(conn_, sql.c_str()) == 0) {
    lose(trimmed(PQerrorMessage(conn_)));
  }
  return finish(deadline);
}

std::string Connection::errorMessage() const {
  return trimmed(PQerrorMessage(conn_));
}

bool Connection::consumeInput() {
  if (PQconsumeInput(conn_) == 0 || PQstatus(conn_) != CONNECTION_OK) {
    broken_ = true;
    return false;
  }
  return true;
}

bool Connection::endedWhileIdle() {
  pollfd fd{PQsocket(conn_), POLLIN, 0};
  if (fd.fd < 0) {
    return true;
  }
  if (::poll(&fd, 1, 0) <= 0) {
    return broken();
  }
  return !consumeInput();
}

std::unique_ptr<PGnotify, void (*)(void*)> Connection::nextNotification() {
  return {PQnotifies(conn_), &PQfreemem};
}

}  // namespace QV::pg
