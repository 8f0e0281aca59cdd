# Shared by scripts/run, scripts/test and scripts/bench: Debian packages and the build.
# Sourced, not run.

TREMORA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

TREMORA_PACKAGES=(
  build-essential cmake pkg-config
  qtbase5-dev qtbase5-dev-tools
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
  libopencv-dev zlib1g-dev
  ffmpeg
  fonts-dejavu-core
  tesseract-ocr tesseract-ocr-eng
  time
  python3 python3-jsonschema python3-numpy python3-pil
  chromium chromium-driver python3-selenium
  slurmctld slurmd slurm-client munge
  lintian desktop-file-utils man-db
)

# Installs whatever of the list is missing; prints nothing when everything is present.
install_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

install_dependencies() {
  install_packages "${TREMORA_PACKAGES[@]}"
}

# configure_and_build BUILD_DIR [CMAKE_ARGS...]
configure_and_build() {
  local dir=$1
  shift
  cmake -S "$TREMORA_ROOT" -B "$TREMORA_ROOT/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$TREMORA_ROOT/$dir" -j2
}

# The demo clip is generated, not committed: a box crossing a still, lightly noisy scene.
demo_clip() {
  local clip="$TREMORA_ROOT/build/demo/tremora-demo.mp4"
  if [ ! -s "$clip" ]; then
    mkdir -p "$(dirname "$clip")"
    ffmpeg -hide_banner -loglevel error -nostdin -y \
      -f lavfi -i "gradients=s=1280x720:d=12:speed=0.00001:seed=7,format=yuv420p" \
      -f lavfi -i "color=c=orange:s=96x96:d=12" \
      -filter_complex "[0][1]overlay=x='mod(t*180,1240)':y='320+250*sin(t*1.3)',noise=alls=6:allf=t" \
      -r 25 -c:v libx264 -pix_fmt yuv420p -t 12 "$clip"
  fi
  echo "$clip"
}
