/// Recorders write frames to files: those of a watcher, of a stream or of an encoder.
///
///     media::recorder film;
///     if (!film.add("film.mp4", &error)) ...
///     film.declare(format);                  // of each track, before its frames
///     if (!film.take(frame, &error)) ...     // from a callback of a watcher, or
///     if (!film.take(found, entry, &error))  // what a cursor found
///     film.finish(&error);
///
/// Files, by the end of their name:
///     .mp4          H.264 pictures and sound as fragmented MP4, which can be read while it grows: AAC unchanged, G.711
///                   as 16-bit PCM. The file ends when the stream changes its parameter sets
///     .h264 .264    H.264 pictures in Annex B form
///     .wav          G.711 sound, unchanged; finish() completes the header
///     .aac          AAC sound with headers of ADTS, one access unit behind the other; the time of lost ones is not
///                   kept
///     .jpg .jpeg    JPEG pictures, one in each file: x.jpg gives x_00001.jpg, ...; "%05d" in the name is replaced by
///                   the number
///     .txt .xml     metadata, one document after the other
/// "-" is MP4 to the standard output; "-.h264", "-.wav", "-.aac" and "-.txt" are those formats to the standard output.
/// A file is made at its first frame. Until then an earlier file of that name stays as it was.
///
/// The files of a recorder have one time base. Sound starts where the picture starts, and both end together: the last
/// picture stays while there is sound. Lost frames, a pause of the source, and the time between two connections keep
/// their length: the last picture stays, and the sound is silent. In MP4, silence beyond ten minutes is written as a
/// step of the times, as is that of AAC whose channels its configuration describes by a list (configuration 0).
/// Pictures come in decoding order. Their display order follows from their times.
///
/// Bounds:
///     pictures held     two seconds, and 4 MiB and one picture
///     sound held        three seconds; before the first picture two seconds, at most 512 frames
///     silence held      ten minutes, until it is written (9.6 MB of G.711)
///
/// One thread at a time. Nothing here throws.
#pragma once

#include "avc/frame.h"
#include "media/api.h"
#include "media/stream.h"

namespace media {

class MEDIA_API recorder final {
public:
    recorder() noexcept;
    /// finish()
    ~recorder();
    recorder(const recorder&) = delete;
    recorder& operator=(const recorder&) = delete;

    /// 1 for the name of a file that can be recorded to. Any thread.
    static int takes(const char* path) noexcept;

    /// Adds a file, before the first frame. @param path  UTF-8, copied
    /// @return 1; 0 with a reason in `error` when it cannot be written: its folder is missing, it is a folder, ...
    int add(const char* path, failure_t* error = nullptr) noexcept;
    /// Tells the format of a track. The first of each kind counts. When pictures are declared, the sound waits for
    /// them. Undeclared tracks are found from the frames, for MP4 from those up to the first key picture.
    void declare(const format_t& format) noexcept;

    /// Writes a whole frame to the files of its format. H.264 begins with a key picture.
    /// @return 1; 0 with a reason in `error` once a file cannot be written: then it takes nothing more
    int take(const av::frame_t& frame, failure_t* error = nullptr) noexcept;
    /// Takes what a cursor found: frames, formats, gaps.
    int take(read_t found, const entry_t& entry, failure_t* error = nullptr) noexcept;
    /// The source has gone away: writes the held frames. Later frames follow them, on a clock of their own.
    /// @return as take()
    int pause(failure_t* error = nullptr) noexcept;
    /// Completes the files. @return as take()
    int finish(failure_t* error = nullptr) noexcept;

    /// Path of the first file for which no frame came; null when there is none. Valid until the recorder ends.
    const char* untouched() const noexcept;
    /// Has `note` called, from inside take(), when a file ends before the recording.
    void on_note(void (*note)(void* arg, const char* text), void* arg) noexcept;

    struct inside;

private:
    inside* inside_;
};

}  // namespace media
