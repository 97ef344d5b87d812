#pragma once

#include <exception>

#include "platform/Exception.h"
#include "playlist/QNPlaylistFactory.h"

// Runs what calls the parsers: the one place where their exceptions become the platform's. Those of
// the platform pass unchanged. Not a public header.
template <class Work>
auto withPlatformExceptions(Work&& work) -> decltype(work()) {
  try {
    return work();
  } catch (const platform::Exception&) {
    throw;
  } catch (const std::exception& exception) {
    throw platform::Exception(QNPlaylistFactoryException, exception.what());
  } catch (...) {
    throw platform::Exception(QNPlaylistFactoryException, "Unexpected C++ exception received");
  }
}
