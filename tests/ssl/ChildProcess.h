// Helpers of the TLS socket and CAS tests: a child process (openssl s_server / s_client, a
// Python server) with its standard input and merged output on pipes, every read bounded, the
// child killed when the object ends; and a free loopback port.
#pragma once

#include <kel/Sockets.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kel_test {

class CChildProcess {
public:
    explicit CChildProcess(const std::vector<std::string>& argv) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        m_Pid = fork();
        if (m_Pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(out[1], 2);
            std::vector<char*> args;
            for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_nIn = in[1];
        m_nOut = out[0];
    }
    ~CChildProcess() {
        Kill();
        if (m_nIn >= 0) close(m_nIn);
        if (m_nOut >= 0) close(m_nOut);
    }
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    bool Started() const { return m_Pid > 0; }
    /// Everything the child wrote so far (after the last ReadUntil).
    const std::string& Output() const { return m_strOutput; }

    /// Reads the child's output until it holds `text`; false when the child ends or `ms` pass.
    bool ReadUntil(const std::string& text, int ms = 20000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (m_strOutput.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{m_nOut, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
            char buffer[4096];
            const ssize_t n = read(m_nOut, buffer, sizeof buffer);
            if (n <= 0) return m_strOutput.find(text) != std::string::npos;
            m_strOutput.append(buffer, static_cast<size_t>(n));
        }
        return true;
    }
    void Write(const std::string& text) {
        if (m_nIn >= 0 && write(m_nIn, text.data(), text.size()) < 0) CloseInput();
    }
    void CloseInput() {
        if (m_nIn >= 0) close(m_nIn);
        m_nIn = -1;
    }
    /// Waits (bounded) for the child to end by itself; its exit status, or -1.
    int WaitExit(int ms = 20000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (m_Pid > 0 && std::chrono::steady_clock::now() < end) {
            int status = 0;
            if (waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
                m_Pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            ReadUntil("\x01\x02never", 20); // keeps the pipe drained meanwhile
        }
        return -1;
    }
    void Kill() {
        if (m_Pid <= 0) return;
        kill(m_Pid, SIGKILL);
        int status = 0;
        waitpid(m_Pid, &status, 0);
        m_Pid = -1;
    }

private:
    pid_t m_Pid = -1;
    int m_nIn = -1;
    int m_nOut = -1;
    std::string m_strOutput;
};

} // namespace kel_test
