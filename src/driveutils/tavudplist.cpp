#include "driveutils/tavudplist.h"

#include "tavutils/tav_error.h"

TavUdpList::TavUdpList() : udpsocket(-1), tcpSocket(-1), list(new TavVectorP<TavClientUDP>(10)) {}

TavUdpList::~TavUdpList()
{
    for (int i = 0; i < list->size(); ++i) delete (*list)[i];
    delete list;
}

void TavUdpList::addClient(uint16_t port, uint32_t address)
{
    bool found = false;
    for (int i = 0; i < list->size(); ++i) {
        TavClientUDP* client = (*list)[i];
        if (client->address == address) {
            client->port = port;
            found = true;
        }
    }
    if (found) return;
    TavClientUDP* client;
    try {
        client = new TavClientUDP{port, address};
    } catch (...) {
        throw tav_enomem("new failed");
    }
    list->add(client);
}
