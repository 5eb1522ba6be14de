// SyslogSink: receives and parses what syslog(3) sends to /dev/log.
#include "tests/SyslogSink.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

SyslogSink::SyslogSink() {
  const char kPath[] = "/dev/log";
  m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::copy(kPath, kPath + sizeof kPath, address.sun_path);
  unlink(kPath);
  if (m_socket < 0 || bind(m_socket, reinterpret_cast<sockaddr*>(&address),
                           sizeof address) != 0) {
    throw std::runtime_error("cannot bind /dev/log");
  }
  chmod(kPath, 0666);  // as a system's syslog socket is: any user may log
  m_reader = std::thread(&SyslogSink::Read, this);
}

SyslogSink::~SyslogSink() {
  shutdown(m_socket, SHUT_RDWR);
  m_reader.join();
  close(m_socket);
  unlink("/dev/log");
}

std::vector<LogLine> SyslogSink::Lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

size_t SyslogSink::Size() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines.size();
}

void SyslogSink::Read() {
  char buffer[8192];
  for (;;) {
    ssize_t n = recv(m_socket, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    std::string message(buffer, n);
    LogLine line = {-1, "", -1, message};  // kept whole if it does not parse
    // "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT"
    const size_t kStamp = sizeof "Mmm dd hh:mm:ss";
    size_t close = message.find('>');
    size_t open = message.find('[', close);
    size_t end = message.find("]: ", open);
    if (message[0] == '<' && end != std::string::npos &&
        open > close + kStamp) {
      line = {std::stoi(message.substr(1, close - 1)),
              message.substr(close + 1 + kStamp, open - close - 1 - kStamp),
              static_cast<pid_t>(
                  std::stoi(message.substr(open + 1, end - open - 1))),
              message.substr(end + 3)};
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
  }
}
