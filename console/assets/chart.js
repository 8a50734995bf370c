// A bar chart of denials per time bucket, drawn on a <canvas>. Small enough
// that a charting library would be more code to review than this.
'use strict';

const KXChart = (() => {
  const kMargin = {left: 48, right: 12, top: 12, bottom: 36};

  const kTicks = 4;

  // The top of the count axis: a round number that kTicks whole steps reach.
  function niceMax(value) {
    const perTick = Math.max(1, value / kTicks);
    const power = Math.pow(10, Math.floor(Math.log10(perTick)));
    for (const step of [1, 2, 5, 10]) {
      if (step * power >= perTick) return step * power * kTicks;
    }
    return 10 * power * kTicks;
  }

  function label(seconds, span) {
    const d = new Date(seconds * 1000);
    const pad = (n) => String(n).padStart(2, '0');
    const time = `${pad(d.getHours())}:${pad(d.getMinutes())}`;
    return span > 2 * 86400 ? `${d.getMonth() + 1}/${d.getDate()} ${time}` : time;
  }

  // data: {since, until, bucket_seconds, denied: [N, ...]} as the API sends it.
  function draw(canvas, data) {
    const ctx = canvas.getContext('2d');
    const width = canvas.width;
    const height = canvas.height;
    ctx.clearRect(0, 0, width, height);
    ctx.font = '12px sans-serif';
    const counts = (data && data.denied) || [];
    const plotW = width - kMargin.left - kMargin.right;
    const plotH = height - kMargin.top - kMargin.bottom;
    const top = niceMax(Math.max(0, ...counts));

    // Grid and the count axis.
    ctx.strokeStyle = '#d8dde3';
    ctx.fillStyle = '#56606b';
    ctx.textAlign = 'right';
    ctx.textBaseline = 'middle';
    for (let i = 0; i <= kTicks; i++) {
      const y = kMargin.top + plotH - (plotH * i) / kTicks;
      ctx.beginPath();
      ctx.moveTo(kMargin.left, y);
      ctx.lineTo(width - kMargin.right, y);
      ctx.stroke();
      ctx.fillText(String((top * i) / kTicks), kMargin.left - 6, y);
    }
    if (counts.length === 0) {
      ctx.textAlign = 'center';
      ctx.fillText('No data', kMargin.left + plotW / 2, kMargin.top + plotH / 2);
      return;
    }

    const slot = plotW / counts.length;
    const barW = Math.max(1, slot * 0.8);
    ctx.fillStyle = '#c0392b';
    counts.forEach((count, i) => {
      const h = (plotH * count) / top;
      ctx.fillRect(kMargin.left + i * slot + (slot - barW) / 2,
                   kMargin.top + plotH - h, barW, h);
    });

    // Time labels: a handful, in the browser's local time.
    ctx.fillStyle = '#56606b';
    ctx.textAlign = 'center';
    ctx.textBaseline = 'top';
    const span = data.until - data.since;
    const every = Math.max(1, Math.ceil(counts.length / 6));
    for (let i = 0; i < counts.length; i += every) {
      const start = data.since + i * data.bucket_seconds;
      ctx.fillText(label(start, span), kMargin.left + i * slot + slot / 2,
                   kMargin.top + plotH + 8);
    }
  }

  return {draw};
})();
