<!--#set path="player:player/volume" value="$form.volume"-->
<!--#set path="player:player/control" value="$form.control"-->
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title><!--#get path="player:player/track"--> – Player</title>
<!--#include file="style.inc"-->
</head>
<body>
<main>

<!--#if value="$error" equals=""--><!--#else-->
<p class="error" role="alert"><!--#echo value="$error"--></p>
<!--#endif-->

<section class="now">
  <p class="state"><!--#get path="player:player/state"--></p>
  <h1><!--#get path="player:player/track"--></h1>
  <form method="post">
    <button name="control" value="previous" aria-label="Previous track">«</button>
    <!--#if path="player:player/state" equals="playing"-->
    <button name="control" value="pause" class="main">Pause</button>
    <!--#else-->
    <button name="control" value="play" class="main">Play</button>
    <!--#endif-->
    <button name="control" value="next" aria-label="Next track">»</button>
  </form>
  <form method="post">
    <label for="volume">Volume</label>
    <input id="volume" name="volume" type="number" inputmode="numeric" min="0" max="100" required
           value="<!--#get path="player:player/volume"-->">
    <span>%</span>
    <button>Set</button>
  </form>
</section>

<section>
  <h2>Playlist</h2>
  <ol>
<!--#rows path="player:player/playlist" from="$query.from" count="10"-->
    <li <!--#if path="player:player/track" equals="$row.title"-->class="current" aria-current="true"<!--#endif-->>
      <span><!--#row role="title"--></span>
      <small><!--#row role="description"--></small>
    </li>
<!--#endrows-->
  </ol>
  <nav>
    <!--#if value="$rows.previous" equals=""--><span>‹ Earlier</span><!--#else-->
    <a href="?from=<!--#echo value="$rows.previous"-->">‹ Earlier</a>
    <!--#endif-->
    <span><!--#echo value="$rows.from–$rows.to of $rows.count"--></span>
    <!--#if value="$rows.next" equals=""--><span>Later ›</span><!--#else-->
    <a href="?from=<!--#echo value="$rows.next"-->">Later ›</a>
    <!--#endif-->
  </nav>
</section>

<section>
  <h2>This device</h2>
  <dl>
    <dt>Name</dt><dd><!--#get path="system:host/name"--></dd>
    <dt>Addresses</dt><dd><!--#get path="system:network/addresses"--></dd>
  </dl>
</section>

</main>
</body>
</html>
