// What the bus and its clients send each other on a Unix socket: a list of texts, the first of which says what it is.
//
//   client: hello NAME WILL-TOPIC | subscribe NUMBER FILTER | unsubscribe NUMBER | ping NUMBER | bye
//           publish NUMBER QUALITY RETAIN TOPIC PAYLOAD RESPONSE-TOPIC CORRELATION
//   bus:    ack NUMBER (of a subscription, a ping, or a publish with quality 1)
//           message SUBSCRIPTION QUALITY TOPIC PAYLOAD RESPONSE-TOPIC CORRELATION
#pragma once

#include <deque>
#include <string>
#include <vector>

namespace unixbus {

using Frame = std::vector<std::string>;

std::string encode(const Frame& frame);

/// Takes a whole frame from the beginning of the received bytes. Returns false if there is none yet.
bool decode(std::string& received, Frame& frame);

/// Sends what the socket takes. Returns false once the connection is broken.
bool flush(int socket, std::deque<std::string>& pending);

/// Appends what there is to read. Returns false at the end of the connection.
bool receive(int socket, std::string& received);

/// The path of the socket: the address itself if it has a "/", otherwise a name below /run/unix-bus. A port is ignored.
std::string pathOf(const std::string& address);

/// A socket that connects or listens at the path, or -1.
int connectTo(const std::string& path);
int listenAt(const std::string& path);

}  // namespace unixbus
