#!/bin/bash
# Makes the bundled sample: sixteen seconds of ffmpeg's own test card and tone as a DASH presentation with two video
# qualities and one audio quality. Usage: samples/make-sample.sh [DIRECTORY]   (default: samples/testcard)
# One thread and bit-exact muxing: the same ffmpeg makes the same bytes again.
set -euo pipefail
out=${1:-$(dirname "$0")/testcard}
mkdir -p "$out"
rm -f "$out"/*.m4s "$out"/*.mp4 "$out"/manifest.mpd
cd "$out"
ffmpeg -nostdin -v error -y \
  -f lavfi -i "testsrc2=size=640x360:rate=25:duration=16" \
  -f lavfi -i "sine=frequency=330:beep_factor=4:sample_rate=48000:duration=16" \
  -filter_complex "[0:v]split=2[big][copy];[copy]scale=320:180:flags=bicubic[small]" \
  -map "[big]" -map "[small]" -map 1:a \
  -threads 1 -filter_complex_threads 1 -fflags +bitexact -flags +bitexact -map_metadata -1 \
  -c:v libx264 -preset veryslow -profile:v main -pix_fmt yuv420p -x264-params "threads=1:scenecut=0:keyint=50:min-keyint=50" \
  -b:v:0 110k -maxrate:v:0 130k -bufsize:v:0 260k -b:v:1 45k -maxrate:v:1 55k -bufsize:v:1 110k \
  -c:a aac -b:a 32k -ac 1 -metadata:s:a:0 language=eng \
  -f dash -seg_duration 2 -use_template 1 -use_timeline 1 -write_prft 0 \
  -adaptation_sets "id=0,streams=v id=1,streams=a" \
  -init_seg_name 'init-$RepresentationID$.mp4' -media_seg_name 'part-$RepresentationID$-$Number%03d$.m4s' \
  manifest.mpd
