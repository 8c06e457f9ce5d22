// Draws report.html's plots with uPlot from the data the replay tool wrote into the page (the
// JSON array in #plot-data; each div.plot names its entry): drag to zoom, double-click to
// zoom out, hover for values, click a legend entry to hide or show its series.
(function () {
    "use strict";
    const entries = JSON.parse(document.getElementById("plot-data").textContent);
    const height = 260;
    for (const el of document.querySelectorAll("div.plot[data-plot]")) {
        const entry = entries[Number(el.dataset.plot)];
        // Series sampled at different times share one x axis; a series has no point (and its
        // line goes on) where only another one was sampled, and a gap where its value is null.
        const data = entry.series.length ? uPlot.join(entry.series.map((s) => [s.x, s.y])) : [[]];
        const series = [{label: entry.xLabel}];
        for (const s of entry.series) {
            series.push({label: s.name, stroke: s.color, width: 1.5, dash: s.dashed ? [5, 3] : []});
        }
        const plot = new uPlot(
            {
                title: entry.title,
                width: el.clientWidth,
                height: height,
                scales: {x: {time: false}},
                axes: [{label: entry.xLabel}, {label: entry.yLabel}],
                series: series,
            },
            data, el);
        new ResizeObserver(() => plot.setSize({width: el.clientWidth, height: height})).observe(el);
    }
})();
