#include "host/cli/demo/clip_writer.h"

namespace host {

namespace {

// Sine waves, one expression for each channel of the layout.
std::string Tones(const std::string& expressions, const std::string& layout) {
  return "aevalsrc='" + expressions + "':sample_rate=48000:channel_layout=" + layout;
}

ClipRecipe Bars() {
  ClipRecipe recipe;
  recipe.name = "Bars";
  recipe.pictures =
      "smptehdbars=size=640x360:rate=25[bars];color=size=72x72:rate=25:color=white[box];"
      "[bars][box]overlay=x='mod(t*128,main_w+w)-w':y=60,format=yuv420p";
  recipe.audio = Tones("0.1*sin(2*PI*1000*t)|0.1*sin(2*PI*1000*t)", "stereo");
  recipe.language = "eng";
  return recipe;
}

ClipRecipe Pattern() {
  ClipRecipe recipe;
  recipe.name = "Pattern";
  recipe.pictures = "testsrc2=size=640x360:rate=30,format=yuv420p";
  recipe.audio = Tones(
      "0.9*sin(2*PI*(200+120*mod(t,10))*t)*(0.55-0.45*cos(2*PI*t/5))|"
      "0.9*sin(2*PI*(200+120*mod(t,10))*t)*(0.55+0.45*cos(2*PI*t/5))",
      "stereo");
  recipe.language = "fra";
  return recipe;
}

ClipRecipe Fractal() {
  ClipRecipe recipe;
  recipe.name = "Fractal";
  recipe.pictures =
      "mandelbrot=size=480x270:rate=25:maxiter=300:start_scale=2.4:end_scale=0.35:end_pts=250:"
      "inner=black,format=yuv420p";
  recipe.audio = Tones("0.5*sin(2*PI*330*t)*exp(-3*mod(t,1))", "mono");
  recipe.language = "deu";
  return recipe;
}

ClipRecipe Life() {
  ClipRecipe recipe;
  recipe.name = "Life";
  recipe.pictures =
      "life=size=160x90:rate=25:mold=12:ratio=0.3:seed=7:"
      "life_color=0x7CFC9A:death_color=0x1B5E8C:mold_color=0x0B1A30,"
      "scale=640x360:flags=neighbor,format=yuv420p";
  recipe.audio = Tones(
      "0.7*sin(2*PI*220*t)*gt(sin(2*PI*t*2),0.3)|"
      "0.7*sin(2*PI*277*t)*gt(sin(2*PI*t*2+1),0.3)",
      "stereo");
  recipe.audioCodec = "mp2";
  recipe.language = "ita";
  recipe.extension = ".ts";
  return recipe;
}

ClipRecipe Gradients() {
  ClipRecipe recipe;
  recipe.name = "Gradients";
  recipe.pictures =
      "gradients=size=640x360:rate=50:speed=0.02:seed=11:nb_colors=4:"
      "c0=0xFF5F6D:c1=0xFFC371:c2=0x2193B0:c3=0x6A3093,format=yuv420p";
  recipe.audio = Tones(
      "0.6*sin(2*PI*110*t)*(0.5+0.5*sin(2*PI*t/3))|"
      "0.6*sin(2*PI*165*t)*(0.5+0.5*sin(2*PI*t/3+1))|"
      "0.4*sin(2*PI*220*t)|0.2*sin(2*PI*60*t)|"
      "0.3*sin(2*PI*330*t)*gt(mod(t,2),1)|0.3*sin(2*PI*440*t)*lt(mod(t,2),1)",
      "5.1");
  recipe.audioCodec = "ac3";
  recipe.language = "spa";
  return recipe;
}

// Interlaced, with pixels that are not square.
ClipRecipe Interlaced() {
  ClipRecipe recipe;
  recipe.name = "Interlaced";
  recipe.pictures =
      "testsrc=size=720x576:rate=50:decimals=1,setsar=16/15[back];"
      "color=size=24x120:rate=50:color=yellow[bar];[back][bar]overlay=x='mod(t*240,W)':y=420,"
      "tinterlace=mode=interleave_top,setfield=tff,format=yuv420p";
  recipe.videoCodec = "mpeg2video";
  recipe.videoOptions = {{"flags", "+ildct+ilme"}, {"b", "6M"}, {"g", "12"}};
  recipe.audio = Tones("0.35*sin(2*PI*500*t)*gt(mod(t,0.5),0.25)|0.35*sin(2*PI*750*t)", "stereo");
  recipe.audioCodec = "mp2";
  recipe.language = "pol";
  recipe.extension = ".ts";
  return recipe;
}

ClipRecipe Cells() {
  ClipRecipe recipe;
  recipe.name = "Cells";
  recipe.pictures =
      "cellauto=size=128x72:rate=30000/1001:rule=18:seed=3:full=1,"
      "format=gray,scale=640x360:flags=neighbor,format=yuv420p,"
      "lutyuv=y='if(gt(val,128),210,38)':u=96:v=160";
  recipe.audio =
      Tones("0.8*sin(2*PI*880*t)*exp(-6*mod(t,0.5))|0.8*sin(2*PI*660*t)*exp(-6*mod(t+0.25,0.5))",
            "stereo");
  recipe.language = "jpn";
  return recipe;
}

// The alarm channel: its audio stops for a while in the middle. Hues alone would be taken for
// frozen video.
ClipRecipe Spectrum() {
  ClipRecipe recipe;
  recipe.name = "Spectrum";
  recipe.pictures =
      "colorspectrum=size=640x360:rate=25:type=all,format=yuv420p,hue=h='36*t'[spectrum];"
      "color=size=48x48:rate=25:color=white[box];"
      "[spectrum][box]overlay=x='mod(t*128,main_w+w)-w':y=180,format=yuv420p";
  recipe.audio = Tones(
      "0.5*sin(2*PI*600*t)*not(between(mod(t,10),3,7))|"
      "0.5*sin(2*PI*600*t)*not(between(mod(t,10),3,7))",
      "stereo");
  recipe.language = "ara";
  return recipe;
}

ClipRecipe Scroll() {
  ClipRecipe recipe;
  recipe.name = "Scroll";
  recipe.pictures = "pal75bars=size=640x360:rate=25,format=yuv420p,scroll=horizontal=0.004";
  recipe.audio = "anoisesrc=color=pink:amplitude=0.5:sample_rate=48000:seed=5";
  recipe.audioCodec = "eac3";
  recipe.language = "rus";
  return recipe;
}

ClipRecipe Plasma() {
  ClipRecipe recipe;
  recipe.name = "Plasma";
  recipe.pictures =
      "nullsrc=size=192x108:rate=25,format=gray,"
      "geq=lum='128+40*(sin(X/14+T*2*PI/5)+sin(Y/10-T*2*PI/10)+sin((X+Y)/18+T*4*PI/5))',"
      "scale=640x360,pseudocolor=preset=magma,format=yuv420p";
  recipe.audio = Tones("0.25*sin(2*PI*262*t)+0.25*sin(2*PI*330*t)+0.25*sin(2*PI*392*t)", "mono");
  recipe.language = "ell";
  return recipe;
}

}  // namespace

std::vector<ClipRecipe> BuiltInChannels(Time length) {
  std::vector<ClipRecipe> recipes = {Bars(),       Pattern(), Fractal(),  Life(),   Gradients(),
                                     Interlaced(), Cells(),   Spectrum(), Scroll(), Plasma()};
  for (ClipRecipe& recipe : recipes) {
    recipe.length = length;
  }
  return recipes;
}

}  // namespace host
