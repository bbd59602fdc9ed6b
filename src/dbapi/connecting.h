// Connecting, which may take longer than anybody waits for it.
#pragma once

#include <exception>
#include <memory>
#include <string>

#include "dbapi/database.h"

// An attempt to connect, and what it made. Belongs to the thread that connects and to the one that
// waits for it; whichever is the last frees what nobody has taken.
class Connecting {
  public:
    // Under the interpreter lock: environments are counted without one.
    Connecting();
    ~Connecting();
    Connecting(const Connecting&) = delete;
    Connecting& operator=(const Connecting&) = delete;

    // Connects; needs no interpreter lock. Where only a file is to be opened, nothing is done, and
    // false the answer, if the runtime may have to wait for somebody.
    bool Make(const std::string& text, bool autocommit, long timeout, bool onlyFile) noexcept;
    // Throws what it came to, if there is no connection.
    void Judge() const;
    // From now on the handles are the caller's.
    void Release();

    SQLHENV environment = nullptr;
    Database database;
    std::string warning;  // what the driver remarks

  private:
    struct Left;
    bool Open(const std::string& text, long timeout, bool onlyFile);
    void Describe();
    static void FreeLeft();
    friend std::shared_ptr<Connecting> Connect(const std::string& text, bool autocommit,
                                               long timeout);

    bool m_isConnected = false;
    std::exception_ptr m_thrown;
    std::unique_ptr<Left> m_left;
};

// Connects. Throws HYT00 after `timeout` seconds (0: never), and ends with the exception of a
// signal's handler, even if the driver goes on: it is left alone then, in a thread that closes what
// comes of it. To be called with the interpreter lock, which others get meanwhile.
std::shared_ptr<Connecting> Connect(const std::string& text, bool autocommit, long timeout);
