// The clip that the camera plays: a graph whose nodes play files, each into a track of the profile bus, and from there
// into streams.
#pragma once

#include "options.h"

#include "core/owned.h"
#include "inet/net_graph.h"
#include "inet/net_thread.h"
#include "media/intake.h"
#include "media/station.h"

#include <list>
#include <string>
#include <vector>

namespace camera {

class clip_graph {
public:
    clip_graph() = default;
    ~clip_graph() { stop(); }
    clip_graph(const clip_graph&) = delete;
    clip_graph& operator=(const clip_graph&) = delete;

    /// Makes the streams of the files that the options name, or, without any file and source, of the bundled ones.
    /// @return false with the reason in `error`, which is empty where the graph has told it already
    bool open(const options& wanted, media::station& station, media::failure_t& error);
    /// Nothing without files. @param on  paces all files: on a thread of the station a push wakes nobody there, which a
    /// thread beside it has to
    /// @return false when it cannot be; the graph has told why
    bool start(net::nt_ctx* on);
    /// Before that thread ends. What is pushed is over when it returns.
    void stop();

    /// Those of the streams.
    const std::vector<std::string>& names() const { return names_; }

private:
    struct piece;

    bool add_stream(const char* name, const std::vector<piece>& pieces, media::station& station,
                    media::failure_t& error);
    bool add_piece(const piece& played, media::stream& into, media::failure_t& error);

    std::vector<std::string> names_;
    std::list<media::intake> intakes_;
    core::owned<net::Graph, net::Graph::destroy> graph_;
};

}  // namespace camera
