# cmake -D HOST=<qn-sample-host> -D LIBRARY=<libQNMovieDownloader.so> -D BUILD=<build tree> -P run.cmake
# The sample host finds the qualities of a stored download, and tells when there is none.

string(RANDOM LENGTH 12 suffix)
set(work "${BUILD}/host-${suffix}")
set(download "${work}/documents/QNMovieDownloader/0123456789abcdef-0123456789abcdef-0000000000000000")
file(WRITE "${download}/manifest.mpd" "<MPD/>")
file(WRITE "${download}/QNMovieDownloadSetProperties.json" [[{
  "QNDownloadSetSourceURL": "http://127.0.0.1/movie/manifest.mpd",
  "QNDownloadSetManifestName": "manifest.mpd",
  "QNNumberOfDownloadedQualities": 2,
  "QNDownloadedQualityIdentifiers": ["video-1", "audio de"]
}]])

function(expect status output library url)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env "XDG_DOCUMENTS_DIR=${work}/documents" "XDG_STATE_HOME=${work}/state"
      "QN_STATE_DIR=${work}/state/qn" "${HOST}" "${library}" "${url}"
    RESULT_VARIABLE actual_status OUTPUT_VARIABLE actual_output ERROR_VARIABLE messages TIMEOUT 30)
  if(NOT actual_status STREQUAL status OR NOT actual_output STREQUAL output)
    file(REMOVE_RECURSE "${work}")
    message(FATAL_ERROR "${url}: status ${actual_status}, output <${actual_output}>, messages <${messages}>")
  endif()
endfunction()

expect(0 "video-1\naudio de\n" "${LIBRARY}" "file://${download}/manifest.mpd")
expect(1 "" "${LIBRARY}" "file://${download}/other.mpd")
expect(2 "" "${work}/none.so" "file://${download}/manifest.mpd")
file(REMOVE_RECURSE "${work}")
