// Settings of the network interfaces eth0, eth1, ... read through the socket
// interface and returned as text. Results: 0 on success, -1 no socket,
// -2 text too short, -3 null text, -4 the request failed, -5 an unknown
// request.
#pragma once

#include <net/if.h>

int eth_getCount();
int eth_getStatus(int interface);

int eth_getMAC(int interface, char* text, int length);
int eth_getAddress(int interface, char* text, int length);
int eth_getNetmask(int interface, char* text, int length);
int eth_getDestinationAddress(int interface, char* text, int length);
int eth_getBroadcastAddress(int interface, char* text, int length);
int eth_getMTU(int interface, char* text, int length);
int eth_getMetric(int interface, char* text, int length);

// The same on the caller's socket, for the interface named in data.
int eth_getMACFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getAddressFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getNetmaskFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getDestinationAddressFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getBroadcastAddressFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getMTUFromSocket(int socket, char* text, int length, ifreq* data);
int eth_getMetricFromSocket(int socket, char* text, int length, ifreq* data);

int eth_getInfo(int interface, char* text, int length, unsigned int request);
int eth_getInfoFromSocket(int socket, char* text, int length, unsigned int request, ifreq* data);
