// The bus: passes messages on between the programs that are connected to its Unix socket. One thread, nothing is
// stored.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Frame.h"
#include "Topics.h"

namespace {

using unixbus::Frame;

struct Peer {
    int socket = -1;
    bool gone = false;
    std::string name;
    std::string willTopic;
    std::string received;
    std::deque<std::string> pending;
    std::map<std::string, std::string> filters;  // by the number of the subscription

    void send(const Frame& frame) { pending.push_back(unixbus::encode(frame)); }
};

class Bus {
 public:
    explicit Bus(int listener) : listener_(listener) {}

    [[noreturn]] void run() {
        for (;;) {
            std::vector<pollfd> watched{{listener_, POLLIN, 0}};
            for (const auto& peer : peers_) {
                const auto events = static_cast<short>(POLLIN | (peer->pending.empty() ? 0 : POLLOUT));
                watched.push_back({peer->socket, events, 0});
            }
            poll(watched.data(), watched.size(), -1);
            for (std::size_t i = 0; i + 1 < watched.size(); ++i) {
                if (watched[i + 1].revents != 0) serve(*peers_[i]);
            }
            for (const auto& peer : peers_) {
                // A peer that has closed reads no answer, but what it sent before counts: `serve` meets the end.
                if (!unixbus::flush(peer->socket, peer->pending)) peer->pending.clear();
            }
            removeGone();
            if (watched[0].revents != 0) accept();
        }
    }

 private:
    void accept() {
        const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) return;
        peers_.push_back(std::make_unique<Peer>());
        peers_.back()->socket = socket;
    }

    void serve(Peer& peer) {
        const bool open = unixbus::receive(peer.socket, peer.received);
        Frame frame;
        while (unixbus::decode(peer.received, frame)) handle(peer, frame);
        if (!open) peer.gone = true;
    }

    void handle(Peer& peer, const Frame& frame) {
        const std::string& kind = frame.at(0);
        if (kind == "hello") {
            // A name has one connection: the newer one replaces the older.
            for (const auto& other : peers_) {
                if (other->name == frame.at(1)) other->gone = true;
            }
            peer.name = frame.at(1);
            peer.willTopic = frame.at(2);
        } else if (kind == "subscribe") {
            peer.filters[frame.at(1)] = frame.at(2);
            peer.send({"ack", frame[1]});
            for (const auto& [topic, message] : retained_) {
                if (unixbus::matches(frame[2], topic)) deliver(peer, frame[1], message);
            }
        } else if (kind == "unsubscribe") {
            peer.filters.erase(frame.at(1));
        } else if (kind == "bye") {
            peer.willTopic.clear();
        } else if (kind == "ping") {
            peer.send({"ack", frame.at(1)});
        } else if (kind == "publish") {
            publish(frame);
            if (frame[2] == "1") peer.send({"ack", frame[1]});
        }
    }

    void publish(const Frame& frame) {
        if (frame.at(3) == "1") retained_[frame.at(4)] = frame;
        for (const auto& peer : peers_) {
            for (const auto& [number, filter] : peer->filters) {
                if (unixbus::matches(filter, frame.at(4))) deliver(*peer, number, frame);
            }
        }
    }

    static void deliver(Peer& peer, const std::string& subscription, const Frame& published) {
        peer.send({"message", subscription, published.at(2), published.at(4), published.at(5), published.at(6),
                   published.at(7)});
    }

    void removeGone() {
        std::vector<std::string> wills;
        for (const auto& peer : peers_) {
            if (!peer->gone) continue;
            close(peer->socket);
            if (!peer->willTopic.empty()) wills.push_back(peer->willTopic);
        }
        const auto isGone = [](const std::unique_ptr<Peer>& peer) { return peer->gone; };
        peers_.erase(std::remove_if(peers_.begin(), peers_.end(), isGone), peers_.end());
        for (const std::string& topic : wills) publish({"publish", "0", "1", "1", topic, "offline", "", ""});
    }

    const int listener_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::map<std::string, Frame> retained_;  // by topic
};

}  // namespace

int main(int argc, char** argv) {
    const int listener = argc == 2 ? unixbus::listenAt(unixbus::pathOf(argv[1])) : -1;
    if (listener < 0) {
        std::cerr << "unix-bus ADDRESS: cannot listen there" << std::endl;
        return 1;
    }
    Bus(listener).run();
}
