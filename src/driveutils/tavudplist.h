// The consoles the agent remembered, and its two listening sockets.
#pragma once

#include <cstdint>

#include "tavutils/tavvectorp.h"

struct TavClientUDP {
    uint16_t port;     // network order
    uint32_t address;  // network order
};

class TavUdpList {
public:
    TavUdpList();
    TavUdpList(const TavUdpList&) = delete;
    TavUdpList& operator=(const TavUdpList&) = delete;
    virtual ~TavUdpList();

    void setUdpSocket(int socket) { udpsocket = socket; }
    void setTcpSocket(int socket) { tcpSocket = socket; }
    // Replaces the port of every client at this address, or adds a client.
    // Clients are never removed.
    void addClient(uint16_t port, uint32_t address);

    int udpsocket;
    int tcpSocket;
    TavVectorP<TavClientUDP>* list;
};
