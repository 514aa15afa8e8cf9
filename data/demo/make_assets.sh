#!/usr/bin/env bash
# Makes the demo scene's media with ffmpeg alone: a looping movie with alpha
# for the ticker and the pictures of the three banners. The results are
# committed; run this again only to change them.
#
#   make_assets.sh           everything
#   make_assets.sh banners   only the banner pictures (the movie's encoder
#                            output differs between ffmpeg builds)
#
# The banner pictures are drawn to the layouts that the library fixes; see
# the Banners section of docs/scene.md for the offsets used below.
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -nostdin -v error -y "$@"; }

if [[ "${1:-}" != banners ]]; then
  # The ticker's movie: two seconds of a moving pattern, 55 % opaque.
  ff -f lavfi -i "testsrc2=s=240x56:r=25:d=2,format=rgba,colorchannelmixer=aa=0.55" \
    -c:v libvpx-vp9 -pix_fmt yuva420p -b:v 300k -deadline good ribbon.webm
fi

# ---------------------------------------------------------------------------
# A tiny vector painter on top of ffmpeg's geq filter. A picture is a stack of
# layers, each "COVERAGE|COLOUR": COVERAGE is an expression in X and Y giving
# 0 to 1 (anti-aliased edges), COLOUR is #RRGGBB or "#TOP>#BOTTOM" for a
# vertical gradient over the whole picture. The first layer is the body: its
# coverage is the picture's alpha; later layers are painted over it.

# One channel (0 red, 1 green, 2 blue) of a colour, as an expression.
channel() {
  local colour=$1 n=$2 top bottom
  top=${colour%%>*}
  bottom=${colour##*>}
  top=$((16#${top:1+2*n:2}))
  bottom=$((16#${bottom:1+2*n:2}))
  if ((top == bottom)); then
    echo "$top"
  else
    echo "lerp($top,$bottom,(Y+0.5)/H)"
  fi
}

# Rounded rectangle LEFT TOP RIGHT BOTTOM RADIUS [INSET]: inside the shape,
# shrunk by INSET pixels on every side.
rrect() {
  local l="($1)" t="($2)" r="($3)" b="($4)" rad="($5)" inset="(${6:-0})"
  echo "clip($rad-$inset+0.5-hypot(max(abs(X+0.5-($l+$r)/2)-(($r-$l)/2-$rad),0),max(abs(Y+0.5-($t+$b)/2)-(($b-$t)/2-$rad),0)),0,1)"
}

# Disc CX CY RADIUS.
disc() {
  echo "clip($3+0.5-hypot(X+0.5-($1),Y+0.5-($2)),0,1)"
}

# picture FILE WIDTH HEIGHT OPACITY LAYER...
picture() {
  local file=$1 w=$2 h=$3 opacity=$4
  shift 4
  local i=0 pre="" cov colour r g b
  for layer in "$@"; do
    cov=${layer%%|*}
    colour=${layer#*|}
    pre+="st($i,$cov);"
    if ((i == 0)); then
      r=$(channel "$colour" 0) g=$(channel "$colour" 1) b=$(channel "$colour" 2)
    else
      r="lerp($r,$(channel "$colour" 0),ld($i))"
      g="lerp($g,$(channel "$colour" 1),ld($i))"
      b="lerp($b,$(channel "$colour" 2),ld($i))"
    fi
    i=$((i + 1))
  done
  ff -f lavfi -i "color=c=black@0:s=${w}x${h},format=rgba" \
    -vf "geq=r='$pre$r':g='$pre$g':b='$pre$b':a='${pre}255*$opacity*ld(0)'" \
    -frames:v 1 -pred mixed "$file"
}

# ---------------------------------------------------------------------------
# Link-mic banner. Offsets below are from the banner's bottom-left corner,
# y upwards; picture rows count downwards from the picture's top.
#
# Image 1 lies at (4, 22): 176 x 30, a light tag. Texts 1 and 2 (dark grey
# fading to black, centred on columns 118 and 154, picture rows 26 to 48)
# land on its columns 95 to 160; two avatar discs fill its left end.
picture tavrin1.png 176 30 0.96 \
  "$(rrect 0 0 176 30 15)|#F7F9FC>#DCE4EF" \
  "$(disc 21 15 12.5)|#FFFFFF" \
  "$(disc 21 15 10.5)|#3B85FF>#1D5FD0" \
  "$(disc 41 15 12.5)|#FFFFFF" \
  "$(disc 41 15 10.5)|#FFBB2A>#E08A10" \
  "$(rrect 74 8 76 22 1)|#B8C4D6"

# Image 2 lies at (216, 16): 314 x 66, a versus bar, light on the left for
# the host's texts 3 and 5, dark on the right for the guest's texts 4 and 6,
# with a microphone at each end. Texts 3 and 4 end in two lines holding a
# space each, which lifts their first line from row 5 to row 49 above the
# origin, into the bar's upper row (letters on picture rows 12 to 30);
# texts 5 and 6 (row 25) form the lower row (letters on rows 37 to 51). Every text fades from
# its colour to black, left to right: texts 3 and 5 start with spaces, so
# their letters are the dark end, on the light half; texts 4 and 6 end with
# spaces, so their letters are the bright end, on the dark half. The split
# leans through column 157, between the two halves' letters.
mic() { # CX: a microphone centred on column CX
  local cx=$1 arc
  arc="clip(11-hypot(X+0.5-$cx,Y+0.5-29),0,1)*clip(hypot(X+0.5-$cx,Y+0.5-29)-8,0,1)*clip(Y-28.5,0,1)"
  echo "max(max($(rrect "$cx-5" 17 "$cx+5" 37 5),$arc),max($(rrect "$cx-1" 39 "$cx+1" 47 0.5),$(rrect "$cx-6" 46 "$cx+6" 48 1)))"
}
split="(157-0.2*(Y+0.5-33))" # the split's column in each row
picture tavrin2.png 314 66 0.95 \
  "$(rrect 0 0 314 66 14)|#3C1020>#240812" \
  "clip($split-(X+0.5)+0.5,0,1)|#F8FBFF>#E0EAFA" \
  "clip(1.6-abs($split-(X+0.5)),0,1)*$(rrect 0 0 314 66 14 1)|#FFFFFF" \
  "$(rrect 0 0 314 66 14)*(1-$(rrect 0 0 314 66 14 2))|#FFFFFF>#B0B8C8" \
  "$(mic 40)|#3B85FF" \
  "$(mic 274)|#FFBB2A"

# ---------------------------------------------------------------------------
# Quellin game banner: the plate at the origin, 232 x 96, dark. Text 1 (pale
# cyan fading to black, centred on column 104, rows 23 to 47 above the
# origin) and text 2 (near white fading to black, from column 36, rows 65 to
# 89) are light, and the texts of the demo end in spaces so that their
# letters stay in the light part of the fade.
picture quellin.png 232 96 0.94 \
  "$(rrect 0 0 232 96 12)|#14223A>#060C18" \
  "$(rrect 0 0 232 96 12)*(1-$(rrect 0 0 232 96 12 1.5))|#3FA9D0" \
  "$(rrect 36 40 214 41.5 0.7)|#2A3E5E" \
  "clip(7.5-abs(X+0.5-20)-abs(Y+0.5-19),0,1)|#FFD040>#F09010" \
  "$(disc 20 61 6.5)|#89E3F7" \
  "$(rrect 36 80 214 85 2.5)|#22344F" \
  "$(rrect 36 80 150 85 2.5)|#46D2F0>#2A9CC0"

# ---------------------------------------------------------------------------
# Ombrel game banner: a pill. The caps image (40 x 40) gives the left end
# from its left 20 columns and the right end from its right 20; the middle
# strip is cut, not stretched, from its left, so it must be at least as wide
# as the widest text and is the same in every column. Its rows match the
# caps' two middle columns, so the ends join without a seam.
end_shape() { # RADIUS: the caps' outline, or a smaller one inside it
  echo "clip($1-hypot(max(abs(X+0.5-20)-1,0),max(abs(Y+0.5-20)-1,0)),0,1)"
}
strip_shape() { # the same outline where it runs straight
  echo "clip($1-max(abs(Y+0.5-20)-1,0),0,1)"
}
rim='#F4C85A>#C8902A'
body='#5A2E9A>#2A1258'
picture caps.png 40 40 0.96 "$(end_shape 19.5)|$rim" "$(end_shape 17.5)|$body"
picture middle.png 1024 40 0.96 "$(strip_shape 19.5)|$rim" "$(strip_shape 17.5)|$body"
