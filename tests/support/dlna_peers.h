// Emulated receivers for discovery tests and benchmarks (header only, so
// that bench/ can use it too). Each peer answers every DEVICE request heard
// on the group from its own address (127.0.0.x) with a text of its own;
// hostile peers flood the answer port with garbage while they run. Must run
// inside the private network namespace.
// Owns: one group socket, one socket per peer, one answer thread and an
// optional flood thread. m_lock guards m_requests.
#ifndef DLNA_PEERS_H
#define DLNA_PEERS_H

#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "RxSocket.h"

class DlnaPeers {
public:
    DlnaPeers() : m_group(rx_udp_group("224.1.2.4", 1234, "127.0.0.1")) {}
    ~DlnaPeers() {
        Stop();
        for (const Peer& p : m_peers) close(p.sock);
        for (const Peer& p : m_flooders) close(p.sock);
        if (m_group >= 0) close(m_group);
    }
    DlnaPeers(const DlnaPeers&) = delete;
    DlnaPeers& operator=(const DlnaPeers&) = delete;

    bool ok() const { return m_group >= 0; }

    // The answer a well-behaved receiver gives.
    static std::string Answer(const std::string& mac, const std::string& guid,
                              const std::string& name, int master, int vol) {
        return "DEVICE\r\nMAC: " + mac + "\r\nGUID: " + guid + "\r\nNAME: " + name +
               "\r\nMASTER: " + std::to_string(master) + "\r\nVOL: " + std::to_string(vol) + "\r\n";
    }
    // The address of the i-th emulated receiver, i from 0.
    static std::string Ip(int i) { return "127.0.0." + std::to_string(2 + i); }

    bool Add(const std::string& ip, const std::string& answer) {
        return _bind(&m_peers, ip, answer);
    }
    // A peer that sends garbage to the phone's answer port without pause.
    bool AddFlooder(const std::string& ip) {
        std::string junk;
        for (int i = 0; i < 300; i++) junk += (char)(' ' + (i * 7 + (int)m_flooders.size()) % 90);
        return _bind(&m_flooders, ip, junk);
    }

    void Start() {
        m_stop = false;
        m_answer = std::thread([this] { _answer_loop(); });
        if (!m_flooders.empty()) m_flood = std::thread([this] { _flood_loop(); });
    }
    void Stop() {
        m_stop = true;
        if (m_answer.joinable()) m_answer.join();
        if (m_flood.joinable()) m_flood.join();
    }
    // Every DEVICE request heard so far, byte for byte.
    std::vector<std::string> Requests() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_requests;
    }

private:
    struct Peer {
        int sock;
        std::string text;
    };

    bool _bind(std::vector<Peer>* list, const std::string& ip, const std::string& text) {
        int s = rx_udp_bind(ip.c_str(), 0);
        if (s < 0) return false;
        list->push_back(Peer{s, text});
        return true;
    }

    void _answer_loop() {
        while (!m_stop) {
            if (rx_wait_readable(m_group, 20) != 1) continue;
            char buf[2048];
            ssize_t n = recv(m_group, buf, sizeof(buf) - 1, 0);
            if (n <= 0) continue;
            buf[n] = 0;
            char host[20] = {0};
            unsigned short port = 0;
            if (sscanf(buf, "DEVICE %19[^:]:%hu", host, &port) != 2) continue;
            {
                std::lock_guard<std::mutex> hold(m_lock);
                m_requests.push_back(std::string(buf, (size_t)n));
            }
            struct sockaddr_in to;
            if (!rx_sockaddr(host, port, &to)) continue;
            for (const Peer& p : m_peers) {
                sendto(p.sock, p.text.data(), p.text.size(), 0, (struct sockaddr*)&to, sizeof(to));
            }
        }
    }

    void _flood_loop() {
        struct sockaddr_in to;
        rx_sockaddr("127.0.0.1", 9090, &to);
        while (!m_stop) {
            for (const Peer& p : m_flooders) {
                sendto(p.sock, p.text.data(), p.text.size(), 0, (struct sockaddr*)&to, sizeof(to));
            }
        }
    }

    int m_group;
    std::vector<Peer> m_peers;
    std::vector<Peer> m_flooders;
    std::atomic<bool> m_stop{true};
    std::thread m_answer;
    std::thread m_flood;
    std::mutex m_lock;
    std::vector<std::string> m_requests;
};

#endif
