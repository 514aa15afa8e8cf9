#!/usr/bin/env bash
# Makes the demo scene's media with ffmpeg: a looping movie with alpha for
# the ticker and the pictures of the three banners. The results are
# committed; run this again only to change them.
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -nostdin -v error -y "$@"; }

# The ticker's movie: two seconds of a moving pattern, 55 % opaque.
ff -f lavfi -i "testsrc2=s=240x56:r=25:d=2,format=rgba,colorchannelmixer=aa=0.55" \
  -c:v libvpx-vp9 -pix_fmt yuva420p -b:v 300k -deadline good ribbon.webm
# Link-mic banner: two gradient plates.
ff -f lavfi -i "gradients=s=200x40:c0=0x2a6cf0:c1=0x9fd0ff:x0=0:y0=0:x1=200:y1=0,format=rgba" \
  -frames:v 1 tavrin1.png
ff -f lavfi -i "gradients=s=300x48:c0=0xf0a030:c1=0xffe0a0:x0=0:y0=0:x1=300:y1=48,format=rgba,colorchannelmixer=aa=0.9" \
  -frames:v 1 tavrin2.png
# Game banners: a plate, and the caps and middle strip of a stretching label.
ff -f lavfi -i "gradients=s=240x96:c0=0x103820:c1=0x2f8050:x0=0:y0=0:x1=0:y1=96,format=rgba,colorchannelmixer=aa=0.85" \
  -frames:v 1 quellin.png
ff -f lavfi -i "gradients=s=40x36:c0=0xe04080:c1=0x6020a0:x0=0:y0=0:x1=40:y1=0,format=rgba" \
  -frames:v 1 caps.png
ff -f lavfi -i "gradients=s=800x36:c0=0x502060:c1=0x502060,format=rgba" -frames:v 1 middle.png
