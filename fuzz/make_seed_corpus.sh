#!/usr/bin/env bash
# make_seed_corpus.sh FOLDER: writes the fuzzer's first inputs into FOLDER, small clips of the
# containers and codecs people feed the analysis (a few kilobytes each, so that mutations
# stay cheap to decode). Encoders this ffmpeg lacks are skipped with a note.
set -euo pipefail

out=${1:?usage: make_seed_corpus.sh FOLDER}
mkdir -p "$out"

encoders=$(ffmpeg -hide_banner -encoders 2>/dev/null)
has_encoder() {
  grep -qE "^ [A-Z.]{6} $1 " <<<"$encoders"
}

ff() {
  ffmpeg -hide_banner -loglevel error -nostdin -y "$@"
}

# A turning test pattern at ten frames a second and a tiny size, for SECONDS seconds.
scene() {
  local size=$1 seconds=$2
  echo "-f lavfi -i testsrc2=size=${size}:rate=10:duration=${seconds},rotate=angle=t"
}

seed() {
  local name=$1 encoder=$2
  shift 2
  if ! has_encoder "$encoder"; then
    echo "make_seed_corpus: no $encoder encoder, skipping $name" >&2
    return 0
  fi
  # shellcheck disable=SC2046 # the scene is a list of words on purpose
  ff $(scene 64x48 1.2) "$@" "$out/$name"
}

seed h264.mp4 libx264 -c:v libx264 -preset ultrafast -pix_fmt yuv420p
seed h264.ts libx264 -c:v libx264 -preset ultrafast -bf 2 -pix_fmt yuv420p
seed mpeg2.mpg mpeg2video -c:v mpeg2video -b:v 200k -f mpeg
seed mjpeg.avi mjpeg -c:v mjpeg -pix_fmt yuvj420p -q:v 12
seed vp9.webm libvpx-vp9 -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 60k -pix_fmt yuv420p
seed ffv1.mkv ffv1 -c:v ffv1 -pix_fmt gray
seed hevc10.mkv libx265 -c:v libx265 -preset ultrafast -pix_fmt yuv420p10le -x265-params log-level=error
seed mpeg4.avi mpeg4 -c:v mpeg4 -q:v 8

# Audio before video: the reader has to skip the first stream.
if has_encoder libx264; then
  ff -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=1.2" $(scene 64x48 1.2) \
    -map 0:a -map 1:v -c:a pcm_u8 -c:v libx264 -preset ultrafast -pix_fmt yuv420p "$out/audio-first.mkv"
fi

# A text header (YUV4MPEG) in front of raw pictures.
ff $(scene 32x24 0.6) -pix_fmt yuv420p -f yuv4mpegpipe "$out/raw.y4m"

# A picture size change in the middle of the stream: two raw H.264 streams back to back.
if has_encoder libx264; then
  tmp=$(mktemp -d)
  ff $(scene 64x48 0.6) -c:v libx264 -preset ultrafast -bf 0 -pix_fmt yuv420p "$tmp/a.h264"
  ff $(scene 32x24 0.6) -c:v libx264 -preset ultrafast -bf 0 -pix_fmt yuv420p "$tmp/b.h264"
  cat "$tmp/a.h264" "$tmp/b.h264" >"$out/size-change.h264"
  rm -rf "$tmp"
fi

ls "$out" | wc -l | xargs echo "make_seed_corpus: seeds in $out:"
