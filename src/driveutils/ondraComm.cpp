// The unit's system id on disk, the well-known unix socket of the local
// status clients, and the relay between the management GUIs and the manager.
#include "driveutils/ondraComm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netinet/in.h>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "driveutils/ondraInterface.h"
#include "platform/platform.h"

[[maybe_unused]] static int giDebug_ondraComm = 0;
#define TAV_DEBUG_FLAG giDebug_ondraComm
#include "driveutils/tavlog.h"
#include "driveutils/ondraLog.h"

// Initialised at load rather than in init: openUnixSocket may run before init,
// and initialising a mutex a second time would be undefined.
pthread_mutex_t TavOndraComm::pthreadMutex = PTHREAD_MUTEX_INITIALIZER;
TavString TavOndraComm::unixDomain = "/tmp/tav.ondra.unix";
int TavOndraComm::fdWkUnix = -1;
int TavOndraComm::maxFdUnix = 0;
fd_set TavOndraComm::fdSetUnix = {};
int16_t TavOndraComm::portWkTcp = 13841;
int TavOndraComm::fdWkTcp = -1;
int TavOndraComm::maxFdTcp = 0;
fd_set TavOndraComm::fdSetTcp = {};
int16_t TavOndraComm::portToMgr = 13840;
int16_t TavOndraComm::portToVMgr = 13843;
int TavOndraComm::fdClient2Mgr = -1;
TavString TavOndraComm::systemId = "NO_SYSTEM_ID";
bool TavOndraComm::initialized = false;

namespace {

constexpr int kLineSize = 1024;     // a line of at most 1023 characters
constexpr int kRelayBuffer = 1024;  // bytes relayed per pass
constexpr int kBacklog = 5;
constexpr int kConnectTries = 5;
constexpr time_t kSelectSeconds = 2;

// fdSetTcp, maxFdTcp and the pairing table belong to the relay thread, but
// closeSockets may run in another one. Each service of a descriptor (accept,
// recv and send) runs under this lock and first checks that the descriptor is
// still in the set, so closeSockets never closes one in mid-service and the
// relay never touches one closed meanwhile. select works on a copy, without
// the lock: closeSockets waits at most for one service, never for a select.
std::mutex tcpMutex;

// The relay's pairing table: a relay socket's entry is its partner. -1 is no
// partner, so a stray entry can only give a failing send, never one to fd 0.
int pairing[ONDRA_PAIRING_SIZE];
bool pairingCleared = false;

// A descriptor can go into a set (and the pairing table) only below both limits.
bool fitsSet(int fd) { return fd >= 0 && fd < FD_SETSIZE && fd < ONDRA_PAIRING_SIZE; }

// "errno = N; text " for a log line.
std::string errnoText(int error)
{
    return "errno = " + std::to_string(error) + "; " + std::strerror(error) + " ";
}

// tavOndraErrno reports the text of the current errno: make it the one meant.
void reportErrno(int error)
{
    errno = error;
    tavOndraErrno(error);
}

// One line of at most 1023 characters, its newline removed; a longer line
// comes in pieces. False at the end of the stream or on a read error.
bool readLine(FILE* in, char (&line)[kLineSize])
{
    if (!std::fgets(line, sizeof line, in)) return false;
    line[std::strcspn(line, "\n")] = '\0';
    return true;
}

// Both with tcpMutex held.
void closeTcpLocked(int fd)
{
    if (fd < 0) return;
    if (fd < FD_SETSIZE) FD_CLR(fd, &TavOndraComm::fdSetTcp);
    plat::close(fd);
}

// A pair's descriptors that are still relayed; one that closeSockets took
// already is not closed a second time (its number may be reused by now).
void closePairLocked(int fd, int partner)
{
    for (int each : {fd, partner})
        if (fitsSet(each) && FD_ISSET(each, &TavOndraComm::fdSetTcp)) closeTcpLocked(each);
}

void recordTcpLocked(int fd)
{
    FD_SET(fd, &TavOndraComm::fdSetTcp);
    TavOndraComm::maxFdTcp = std::max(TavOndraComm::maxFdTcp, fd + 1);
}

int guiAcceptLocked(int* fdArray)
{
    if (!fdArray) {
        tav_logstream << "Ondra module: NULL parameter; " << ONDRA_END;
        return -1;
    }
    int gui = ::accept(TavOndraComm::fdWkTcp, nullptr, nullptr);
    if (gui < 0) {
        int error = errno;
        reportErrno(error);
        tav_logstream << "Ondra module: accept failed; " << errnoText(error) << ONDRA_END;
        return -1;
    }
    // A descriptor past the set's size cannot be relayed: dropped at once.
    if (!fitsSet(gui)) {
        tav_logstream << "Ondra module: gui socket beyond the descriptor set; fd = " << gui << " " << ONDRA_END;
        closeTcpLocked(gui);
        return -1;
    }
    int mgr = TavOndraComm::connectToMgr();
    if (mgr < 0) {
        int error = errno;
        tav_logstream << "Ondra module: unable to connect to dbd_manager; " << errnoText(error) << ONDRA_END;
        closeTcpLocked(gui);
        return -1;
    }
    if (!fitsSet(mgr)) {
        tav_logstream << "Ondra module: mgr socket beyond the descriptor set; fd = " << mgr << " " << ONDRA_END;
        closeTcpLocked(mgr);
        closeTcpLocked(gui);
        return -1;
    }
    fdArray[gui] = mgr;
    fdArray[mgr] = gui;
    recordTcpLocked(gui);
    recordTcpLocked(mgr);
    return 0;
}

int passThroughLocked(int index, int* fdArray)
{
    if (!fdArray) {
        tav_logstream << "Ondra module: NULL parameter; " << ONDRA_END;
        return -1;
    }
    // Closed meanwhile (or never relayed): nothing to read, nothing to close.
    if (!fitsSet(index) || !FD_ISSET(index, &TavOndraComm::fdSetTcp)) {
        tav_logstream << "Ondra module: socket closed on other end; " << ONDRA_END;
        return -1;
    }
    const int partner = fdArray[index];
    char buffer[kRelayBuffer] = {};
    ssize_t got = ::recv(index, buffer, sizeof buffer, MSG_NOSIGNAL);
    if (got > 0) {
        ssize_t sent = ::send(partner, buffer, static_cast<size_t>(got), MSG_NOSIGNAL);
        if (sent == got) return 0;
        // No buffering: a partial send closes the pair.
        reportErrno(errno);
        tav_logstream << "Ondra module: send failed in module; " << ONDRA_END;
    } else if (got == 0) {
        tav_logstream << "Ondra module: socket closed on other end; " << ONDRA_END;
    } else {
        reportErrno(errno);
        tav_logstream << "Ondra module: recv failed in module; " << ONDRA_END;
    }
    closePairLocked(index, partner);
    return -1;
}

int currentMaxFdTcp()
{
    std::lock_guard<std::mutex> lock(tcpMutex);
    return TavOndraComm::maxFdTcp;
}

int currentWkTcp()
{
    std::lock_guard<std::mutex> lock(tcpMutex);
    return TavOndraComm::fdWkTcp;
}

// openUnixSocket's steps, with pthreadMutex held.
int openUnixSocketLocked()
{
    if (TavOndraComm::fdWkUnix >= 0) return 0;
    const char* path = TavOndraComm::unixDomain.c_str();
    if (plat::remove(path) != 0 && errno != ENOENT) {
        int error = errno;
        tav_logstream << "Ondra module: unable to remove " << path << "; errno = " << error << " " << ONDRA_END;
    }
    int fd = -1;
    auto failed = [&fd](const char* what, int error) {
        tav_logstream << "Ondra module: " << what << errnoText(error) << ONDRA_END;
        if (fd >= 0) plat::close(fd);
        reportErrno(error);
        return -1;
    };
    fd = plat::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return failed("unable to create a socket; ", errno);
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) return failed("fcntl failed; ", errno);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // A path that does not fit the address is refused, not cut.
    if (std::strlen(path) >= sizeof address.sun_path) return failed("unable to bind to socket; ", ENAMETOOLONG);
    std::strcpy(address.sun_path, path);
    int on = 1;
    if (plat::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        return failed("setsockopt failed; ", errno);
    if (plat::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        return failed("unable to bind to socket; ", errno);
    if (::listen(fd, kBacklog) < 0) return failed("unable to listen to socket; ", errno);
    if (!fitsSet(fd)) return failed("socket beyond the descriptor set; ", EMFILE);
    TavOndraComm::fdWkUnix = fd;
    TavOndraComm::maxFdUnix = std::max(TavOndraComm::maxFdUnix, fd + 1);
    FD_SET(fd, &TavOndraComm::fdSetUnix);
    return 0;
}

// fopen through the seam with the words of a failed open; null on failure.
FILE* openOrSay(TavString& buffer, const std::string& name, const char* mode)
{
    FILE* f = plat::fopen(name.c_str(), mode);
    if (!f) {
        reportErrno(errno);
        tav_logstream << "Ondra module: unable to open " << name << " " << ONDRA_END;
        buffer.assign("Unable to open " + name);
    }
    return f;
}

} // namespace

bool ondraFirstNonEmptyLine(FILE* stream, TavString& line)
{
    char text[kLineSize];
    while (readLine(stream, text))
        if (text[0]) {
            line = text;
            return true;
        }
    return false;
}

int TavOndraComm::init(TavString& buffer)
{
    // A second relay thread would race the first for every descriptor.
    if (initialized) return 0;
    if (getSystemIdFromFile(buffer) != 0) {
        buffer.assign(std::string("Unable to get system id from ") + ONDRA_SYSTEM_ID_FILE);
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(tcpMutex);
        FD_ZERO(&fdSetTcp);
    }
    pthread_mutex_lock(&pthreadMutex);
    FD_ZERO(&fdSetUnix);
    pthread_mutex_unlock(&pthreadMutex);
    if (openUnixSocket() != 0) {
        buffer = "Unable to open well known unix domain socket";
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        fdWkUnix = -1;
        return -1;
    }
    // The relay lives for the life of the program: nobody joins it.
    pthread_t relay;
    int rc = pthread_create(&relay, nullptr, connectGuisToMgr, nullptr);
    if (rc != 0) {
        reportErrno(rc);
        buffer = "Unable to start thread for gui->mgr comm";
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    pthread_detach(relay);
    initialized = true;
    return 0;
}

void TavOndraComm::closeSockets()
{
    if (!initialized) return;
    std::vector<int> unixFds;
    pthread_mutex_lock(&pthreadMutex);
    for (int fd = 0; fd < maxFdUnix; ++fd)
        if (FD_ISSET(fd, &fdSetUnix)) {
            FD_CLR(fd, &fdSetUnix);
            unixFds.push_back(fd);
        }
    pthread_mutex_unlock(&pthreadMutex);
    for (int fd : unixFds) socketClose(fd);
    std::lock_guard<std::mutex> lock(tcpMutex);
    for (int fd = 0; fd < maxFdTcp; ++fd)
        if (FD_ISSET(fd, &fdSetTcp)) closeTcpLocked(fd);
}

int TavOndraComm::unixDomainGet(TavString& buffer)
{
    buffer = unixDomain;
    return 0;
}

int TavOndraComm::writeSystemIdToFile(TavString& buffer)
{
    buffer = systemId;
    if (!initialized) {
        buffer = "TavOndraComm class not initialized";
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    if (writeToFile(buffer, ONDRA_SYSTEM_ID_FILE) != 0) {
        buffer = "Unable to write system id to file";
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    return 0;
}

// The unix set is also walked by closeSockets: both hold pthreadMutex for it.
int TavOndraComm::sendMsg(const void* msg, size_t length)
{
    if (!msg) {
        tav_logstream << "Ondra module: NULL parameter to sendMsg; " << ONDRA_END;
        return -1;
    }
    if (int rc = pthread_mutex_lock(&pthreadMutex); rc != 0) {
        tav_logstream << "Ondra module: unable to lock mutex; " << errnoText(rc) << ONDRA_END;
        return -1;
    }
    for (int fd = 0; fd < maxFdUnix; ++fd) {
        if (!FD_ISSET(fd, &fdSetUnix) || fd == fdWkUnix) continue;
        errno = 0;
        ssize_t count = ::send(fd, msg, length, MSG_NOSIGNAL);
        if (count >= 0 && static_cast<size_t>(count) == length) continue;
        // The client is gone.
        int error = errno;
        if (error) reportErrno(error);
        tav_logstream << "Ondra module: send failure; count = " << count << "; socket closed; errno = " << error
                      << " " << ONDRA_END;
        tav_logstream << "Ondra module: close socket = " << fd << " " << ONDRA_END;
        if (plat::close(fd) != 0) tav_logstream << "Ondra module: unable to close socket; " << errnoText(errno) << ONDRA_END;
        FD_CLR(fd, &fdSetUnix);
    }
    pthread_mutex_unlock(&pthreadMutex);
    return 0;
}

int TavOndraComm::openUnixSocket()
{
    if (int rc = pthread_mutex_lock(&pthreadMutex); rc != 0) {
        tav_logstream << "Ondra module: unable to lock mutex; " << errnoText(rc) << ONDRA_END;
        return -1;
    }
    int result = openUnixSocketLocked();
    if (int rc = pthread_mutex_unlock(&pthreadMutex); rc != 0)
        tav_logstream << "Ondra module: unable to unlock mutex; " << errnoText(rc) << ONDRA_END;
    return result;
}

int TavOndraComm::openWkPortForGuis()
{
    if (portWkTcp < 0) {
        tav_logstream << "Ondra module: invalid port = " << portWkTcp << " " << ONDRA_END;
        return -1;
    }
    int fd = -1;
    auto failed = [&fd](const char* what) {
        int error = errno;
        tav_logstream << "Ondra module: " << what << errnoText(error) << ONDRA_END;
        socketClose(fd);
        reportErrno(error);
        return -1;
    };
    fd = plat::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return failed("unable to create well known socket for gui; ");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(portWkTcp));
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) return failed("fcntl failed; ");
    int on = 1;
    if (plat::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) return failed("setsockopt failed; ");
    if (plat::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        return failed("unable to bind well known socket for gui; ");
    if (::listen(fd, kBacklog) < 0) return failed("unable to listen on server socket for gui; ");
    if (!fitsSet(fd)) {
        errno = EMFILE;
        return failed("well known socket beyond the descriptor set; ");
    }
    std::lock_guard<std::mutex> lock(tcpMutex);
    fdWkTcp = fd;
    recordTcpLocked(fd);
    return 0;
}

void* TavOndraComm::connectGuisToMgr(void*)
{
    for (;;) {
        if (currentWkTcp() < 0) {
            if (openWkPortForGuis() == -1)
                tav_logstream << "Ondra module: TavOndraComm class not initialized; " << ONDRA_END;
            if (currentWkTcp() < 0) {
                tav_logstream << "Ondra module: well known socket < 0; " << ONDRA_END;
                return nullptr;
            }
        }
        if (passThroughMsg() != 0) tav_logstream << "Ondra module: unable to pass gui->mgr msg; " << ONDRA_END;
    }
}

int TavOndraComm::guiAccept(int* fdArray)
{
    std::lock_guard<std::mutex> lock(tcpMutex);
    return guiAcceptLocked(fdArray);
}

int TavOndraComm::connectToMgr()
{
    if (portToMgr < 0) {
        tav_logstream << "Ondra module: invalid port; " << ONDRA_END;
        return -1;
    }
    int fd = plat::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        int error = errno;
        tav_logstream << "Ondra module: unable to create socket for client to mgr; " << errnoText(error) << ONDRA_END;
        reportErrno(error);
        errno = error;
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(portToMgr));
    // Deliberately as of old: a socket whose connect never succeeded is left
    // open (the caller has no way to close it).
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) {
        int error = errno;
        tav_logstream << "Ondra module: fcntl failed; " << errnoText(error) << ONDRA_END;
        reportErrno(error);
        errno = error;
        return -1;
    }
    int error = 0;
    for (int attempt = 0; attempt < kConnectTries; ++attempt) {
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
        error = errno;
        tav_logstream << "Ondra module: unable to connect on client socket to mgr; " << errnoText(error)
                      << ONDRA_END;
        reportErrno(error);
    }
    errno = error;
    return -1;
}

int TavOndraComm::passThroughMsg()
{
    fd_set ready;
    int maxFd;
    {
        std::lock_guard<std::mutex> lock(tcpMutex);
        if (!pairingCleared) {
            std::fill(std::begin(pairing), std::end(pairing), -1);
            pairingCleared = true;
        }
        ready = fdSetTcp;
        maxFd = maxFdTcp;
    }
    timeval timeout{kSelectSeconds, 0};
    int count = ::select(maxFd, &ready, nullptr, nullptr, &timeout);
    if (count == 0) return 0;
    if (count < 0) {
        int error = errno;
        if (error == EINTR) return 0;
        reportErrno(error);
        tav_logstream << "Ondra module: select failed" << " " << ONDRA_END;
        plat::sleep(1);
        return -1;
    }
    int served = 0;
    for (int fd = 0; fd < currentMaxFdTcp() && served < count; ++fd) {
        if (!FD_ISSET(fd, &ready)) continue;
        ++served;
        std::lock_guard<std::mutex> lock(tcpMutex);
        if (!FD_ISSET(fd, &fdSetTcp)) continue;  // closed by closeSockets meanwhile
        if (fd == fdWkTcp) {
            if (guiAcceptLocked(pairing) != 0) {
                tav_logstream << "Ondra module: unable to accept gui; " << ONDRA_END;
                return -1;
            }
        } else if (passThroughLocked(fd, pairing) != 0) {
            tav_logstream << "Ondra module: unable to pass through msg; " << ONDRA_END;
            return -1;
        }
    }
    return 0;
}

int TavOndraComm::passThrough(int index, int* fdArray)
{
    std::lock_guard<std::mutex> lock(tcpMutex);
    return passThroughLocked(index, fdArray);
}

void TavOndraComm::socketClose(int fd)
{
    // Leaves maxFdTcp and the pairing entry as they are.
    std::lock_guard<std::mutex> lock(tcpMutex);
    closeTcpLocked(fd);
}

int TavOndraComm::writeToFile(TavString& buffer, const char* file)
{
    const std::string temp = std::string(file) + ".tmp";
    FILE* out = openOrSay(buffer, temp, "w");
    if (!out) return -1;
    bool written = std::fputs(buffer.c_str(), out) >= 0 && std::fputc('\n', out) != EOF && std::fflush(out) == 0;
    int error = errno;
    if (std::fclose(out) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written) {
        reportErrno(error);
        tav_logstream << "Ondra module: write failed to " << temp << " " << ONDRA_END;
        buffer.assign("Write failed to " + temp);
        return -1;
    }
    if (plat::rename(temp.c_str(), file) != 0) {
        reportErrno(errno);
        tav_logstream << "Ondra module: unable to rename " << temp << " " << ONDRA_END;
        buffer.assign("Unable to rename " + temp);
        return -1;
    }
    buffer = "";
    plat::sync();
    return 0;
}

int TavOndraComm::readFromFile(TavString& buffer, const char* file)
{
    FILE* in = openOrSay(buffer, file, "r");
    if (!in) return -1;
    int result = -1;
    char line[kLineSize];
    while (result != 0 && readLine(in, line)) {
        tavOndraStripWhiteSpace(line);
        if (line[0]) {
            buffer = line;
            result = 0;
        }
    }
    std::fclose(in);
    return result;
}

int TavOndraComm::getSystemIdFromFile(TavString& buffer)
{
    const char* name = ONDRA_SYSTEM_ID_FILE;
    FILE* in = plat::fopen(name, "r");
    if (!in) {
        reportErrno(errno);
        buffer.assign(std::string("Unable to open cfg file: ") + name);
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    // A plain end of file reports errno 0, never a stale error.
    errno = 0;
    TavString line;
    bool found = ondraFirstNonEmptyLine(in, line);
    int error = errno;
    std::fclose(in);
    if (!found) {
        reportErrno(error);
        buffer.assign(std::string("Unable to get line from ") + name);
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return -1;
    }
    systemId = line;
    return 0;
}
