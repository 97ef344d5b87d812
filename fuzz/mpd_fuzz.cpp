// MPD bytes to playlist to all resource lists.

#include "fuzz/playlist_properties.h"
#include "playlist/QNPlaylistFactory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<QNPlaylist> playlist;
  try {
    playlist = QNPlaylistFactory::dashGenerateWithData(
        std::make_shared<const platform::Data>(data, data + size));
  } catch (const platform::Exception&) {
  }
  if (playlist) fuzz::checkPlaylist(*playlist);
  return 0;
}
