// Draws the timeline out of the page's data with ECharts.
(function () {
    'use strict';

    const data = JSON.parse(document.getElementById('data').textContent);
    const COMMAND = 10; // numbers for each command
    const ITEM = 5; // and for each item
    const ROW_HEIGHT = 30;
    const darkness = window.matchMedia('(prefers-color-scheme: dark)');

    // By the numbers of the items. The colours are told apart by colour-blind people, too (Okabe and Ito), and no
    // two of them share shape and lane. Lanes are parts of a row, from its top: plays, records, the queue.
    const KINDS = [
        { name: 'Stream open', light: '#e6eef5', dark: '#26313a', lane: [0.04, 0.96], silent: true },
        { name: 'Driver connected', light: '#7fcdb3', dark: '#1f7a5c', lane: [0.3, 0.7] },
        { name: 'No driver', light: '#d55e00', dark: '#e8762b', lane: [0.3, 0.7] },
        { name: 'Play', light: '#0072b2', dark: '#3c9fd8', lane: [0.08, 0.4] },
        { name: 'Record', light: '#e69f00', dark: '#f0b429', lane: [0.42, 0.66] },
        { name: 'Waiting in the queue', light: '#8c8c8c', dark: '#9a9a9a', lane: [0.7, 0.92] },
        { name: 'Completion told', light: '#00614a', dark: '#2fd4a7', mark: 'tick' },
        { name: 'Cancel', light: '#a3457b', dark: '#e39ac4', mark: 'diamond' },
        { name: 'Time-out', light: '#d55e00', dark: '#ff8a3d', mark: 'triangle' },
        { name: 'Failure', light: '#000000', dark: '#ffffff', mark: 'cross' }
    ];

    function toMs(us) {
        return data.origin + us / 1000;
    }

    // [row, begin, end, number of the command] for each item of a kind.
    function itemsByKind() {
        const kinds = KINDS.map(() => []);
        for (let i = 0; i < data.items.length; i += ITEM) {
            const [kind, row, begin, end, command] = data.items.slice(i, i + ITEM);
            kinds[kind].push([row, toMs(begin), toMs(end), command]);
        }
        return kinds;
    }

    // Of what falls onto the same pixels only the first is drawn: 100,000 commands are a few thousand shapes. Marks that
    // stand too close are one until they are looked at more closely.
    function isHidden(params, row, from, to, apart = 0) {
        const last = params.context.last || (params.context.last = new Map());
        const before = last.get(row);
        if (before !== undefined && from >= before[0] && to <= before[1] + apart) return true;
        last.set(row, [from, to]);
        return false;
    }

    function barRenderer(kind, colour) {
        return function (params, api) {
            const row = api.value(0);
            const area = params.coordSys;
            const begin = api.coord([api.value(1), row]);
            const end = api.coord([api.value(2), row]);
            const left = Math.max(Math.floor(begin[0]), area.x);
            const right = Math.min(Math.max(Math.ceil(end[0]), left + 2), area.x + area.width);
            if (right < area.x || left > area.x + area.width || isHidden(params, row, left, right)) return undefined;
            const height = api.size([0, 1])[1];
            return {
                type: 'rect',
                shape: {
                    x: left,
                    y: begin[1] - height / 2 + kind.lane[0] * height,
                    width: Math.max(right - left, 1),
                    height: (kind.lane[1] - kind.lane[0]) * height
                },
                style: {
                    fill: colour,
                    stroke: kind.silent ? undefined : background(),
                    lineWidth: right - left > 4 ? 1 : 0
                },
                silent: kind.silent
            };
        };
    }

    function markShape(mark, x, y, half) {
        switch (mark) {
            case 'tick':
                return [
                    [x - 1, y - half],
                    [x + 1, y - half],
                    [x + 1, y + half],
                    [x - 1, y + half]
                ];
            case 'diamond':
                return [
                    [x, y - half],
                    [x + half, y],
                    [x, y + half],
                    [x - half, y]
                ];
            case 'triangle':
                return [
                    [x, y - half],
                    [x + half, y + half],
                    [x - half, y + half]
                ];
            default: {
                const thin = half / 3;
                return [
                    [x - half, y - half + thin],
                    [x - half + thin, y - half],
                    [x, y - thin],
                    [x + half - thin, y - half],
                    [x + half, y - half + thin],
                    [x + thin, y],
                    [x + half, y + half - thin],
                    [x + half - thin, y + half],
                    [x, y + thin],
                    [x - half + thin, y + half],
                    [x - half, y + half - thin],
                    [x - thin, y]
                ];
            }
        }
    }

    function markRenderer(kind, colour) {
        return function (params, api) {
            const row = api.value(0);
            const point = api.coord([api.value(1), row]);
            const x = Math.round(point[0]);
            const area = params.coordSys;
            const height = api.size([0, 1])[1];
            const half = kind.mark === 'tick' ? height * 0.36 : Math.min(7, height * 0.28);
            const apart = kind.mark === 'tick' ? 0 : half;
            if (x < area.x || x > area.x + area.width || isHidden(params, row, x, x, apart)) return undefined;
            return {
                type: 'polygon',
                shape: { points: markShape(kind.mark, x, point[1] - height * 0.1, half) },
                style: { fill: colour, stroke: background(), lineWidth: kind.mark === 'tick' ? 0 : 1 }
            };
        };
    }

    function background() {
        return darkness.matches ? '#17191c' : '#ffffff';
    }

    function clock(us) {
        return (
            new Date(Math.floor(toMs(us))).toISOString().slice(11, 23) +
            String(Math.floor(us + data.origin * 1000) % 1000).padStart(3, '0')
        );
    }

    function seconds(us) {
        return (us / 1e6).toFixed(6) + ' s';
    }

    function paragraph(parent, text, bold) {
        const line = document.createElement('div');
        line.textContent = text;
        line.style.fontWeight = bold ? '600' : '400';
        parent.appendChild(line);
    }

    // Texts of the log are never HTML here.
    function tooltip(params) {
        const kind = KINDS[params.seriesIndex];
        const [row, begin, end, number] = params.value;
        const box = document.createElement('div');
        box.style.maxWidth = '32rem';
        box.style.whiteSpace = 'normal';
        box.style.overflowWrap = 'anywhere';
        paragraph(box, kind.name + ', ' + data.rows[row], true);
        if (number >= 0) {
            const command = data.commands.slice(number * COMMAND, (number + 1) * COMMAND);
            const numbered = command[1] ? ' #' + command[1] : '';
            paragraph(box, (data.names[command[0]] || '') + numbered + ' ' + data.texts[command[2]]);
            const requested = command[4];
            ['requested', 'queued', 'sent', 'answered', 'event', 'ended'].forEach((name, i) => {
                const time = command[4 + i];
                if (time < 0) return;
                const later = i > 0 && requested >= 0 ? ' (+' + seconds(time - requested) + ')' : '';
                paragraph(box, name + ' ' + clock(time) + later);
            });
            paragraph(box, data.texts[command[3]], true);
        } else {
            const from = Math.round((begin - data.origin) * 1000);
            const to = Math.round((end - data.origin) * 1000);
            paragraph(box, to > from ? clock(from) + ' to ' + clock(to) + ', ' + seconds(to - from) : clock(from));
        }
        return box;
    }

    function shorten(text) {
        return text.length > 28 ? text.slice(0, 27) + '\u2026' : text;
    }

    function series(kind, number, items) {
        const colour = darkness.matches ? kind.dark : kind.light;
        return {
            id: String(number),
            name: kind.name,
            type: 'custom',
            renderItem: kind.mark ? markRenderer(kind, colour) : barRenderer(kind, colour),
            itemStyle: { color: colour },
            dimensions: ['row', 'begin', 'end', 'command'],
            encode: { x: [1, 2], y: 0 },
            data: items,
            clip: true,
            animation: false,
            progressive: 0,
            silent: kind.silent,
            z: 2 + number
        };
    }

    // Where there is no driver nothing can happen in any row.
    function shadeLosses(first, losses) {
        first.markArea = {
            silent: true,
            itemStyle: { color: darkness.matches ? 'rgba(232,118,43,0.16)' : 'rgba(213,94,0,0.10)' },
            data: losses.map((item) => [{ xAxis: item[1] }, { xAxis: item[2] }])
        };
    }

    function option(items, rowsShown) {
        const text = darkness.matches ? '#ececec' : '#1b1b1b';
        const line = darkness.matches ? '#454545' : '#d0d0d0';
        const all = KINDS.map((kind, number) => series(kind, number, items[number]));
        const processes = data.rows.filter((name) => name.startsWith('driver, p')).length;
        if (processes === 1 && items[2].length <= 1000) shadeLosses(all[0], items[2]);
        const scrolls = data.rows.length > rowsShown;
        const zooms = [
            {
                id: 'x',
                type: 'inside',
                xAxisIndex: 0,
                filterMode: 'weakFilter',
                minValueSpan: 1,
                zoomOnMouseWheel: true,
                moveOnMouseMove: true
            },
            {
                type: 'slider',
                xAxisIndex: 0,
                filterMode: 'weakFilter',
                minValueSpan: 1,
                bottom: 8,
                height: 22,
                showDataShadow: false,
                labelFormatter: '',
                brushSelect: false
            },
            {
                id: 'y',
                type: 'inside',
                yAxisIndex: 0,
                filterMode: 'weakFilter',
                startValue: 0,
                endValue: rowsShown - 1,
                zoomOnMouseWheel: 'ctrl',
                moveOnMouseWheel: 'shift',
                moveOnMouseMove: false
            }
        ];
        if (scrolls) {
            zooms.push({
                type: 'slider',
                yAxisIndex: 0,
                filterMode: 'weakFilter',
                startValue: 0,
                endValue: rowsShown - 1,
                right: 10,
                width: 16,
                showDetail: false,
                showDataShadow: false,
                brushSelect: false
            });
        }
        return {
            useUTC: true,
            animation: false,
            backgroundColor: background(),
            textStyle: { color: text, fontFamily: 'system-ui, sans-serif' },
            legend: {
                top: 0,
                textStyle: { color: text },
                inactiveColor: line,
                data: KINDS.map((kind) => ({ name: kind.name, icon: legendIcon(kind) }))
            },
            grid: { left: 190, right: scrolls ? 48 : 28, top: 62, bottom: 64 },
            tooltip: {
                trigger: 'item',
                confine: true,
                formatter: tooltip,
                backgroundColor: background(),
                borderColor: line,
                textStyle: { color: text, fontSize: 12 }
            },
            xAxis: {
                type: 'time',
                min: toMs(0),
                max: toMs(Math.max(data.length, 1000)),
                axisLabel: { color: text, hideOverlap: true },
                axisLine: { lineStyle: { color: line } },
                splitLine: { show: true, lineStyle: { color: line, opacity: 0.5 } }
            },
            yAxis: {
                type: 'category',
                inverse: true,
                data: data.rows,
                axisLabel: { color: text, formatter: shorten, interval: 0, width: 170, overflow: 'truncate' },
                axisLine: { lineStyle: { color: line } },
                axisTick: { show: false },
                splitLine: { show: true, lineStyle: { color: line, opacity: 0.6 } }
            },
            dataZoom: zooms,
            series: all
        };
    }

    function legendIcon(kind) {
        switch (kind.mark) {
            case 'tick':
                return 'path://M4 0h2v10h-2z M0 0h0.01v10h-0.01z M10 0h0.01v10h-0.01z';
            case 'cross':
                return 'path://M0 2L2 0L5 3L8 0L10 2L7 5L10 8L8 10L5 7L2 10L0 8L3 5z';
            case undefined:
                return 'rect';
            default:
                return kind.mark;
        }
    }

    function zoom(chart, what) {
        const zooms = chart.getOption().dataZoom;
        const axis = what === 'up' || what === 'down' ? 2 : 0;
        let { start, end } = zooms[axis];
        const length = end - start;
        switch (what) {
            case 'all':
                start = 0;
                end = 100;
                break;
            case 'in':
                start += length / 4;
                end -= length / 4;
                break;
            case 'out':
                start -= length / 2;
                end += length / 2;
                break;
            case 'left':
            case 'up':
                start -= Math.min(length / 2, start);
                end = start + length;
                break;
            default:
                end += Math.min(length / 2, 100 - end);
                start = end - length;
                break;
        }
        chart.dispatchAction({
            type: 'dataZoom',
            dataZoomIndex: axis,
            start: Math.max(start, 0),
            end: Math.min(end, 100)
        });
    }

    // Who opens the page, a program too, is told when everything is there.
    function setReady() {
        document.documentElement.dataset.items = String(data.items.length / ITEM);
        document.documentElement.dataset.ready = 'true';
    }

    function draw() {
        if (data.rows.length === 0) {
            document.getElementById('empty').hidden = false;
            setReady();
            return;
        }
        const room = Math.max(window.innerHeight - 330, 240);
        const rowsShown = Math.min(data.rows.length, Math.floor(room / ROW_HEIGHT));
        const element = document.getElementById('chart');
        element.style.height = 126 + rowsShown * Math.min(Math.floor(room / rowsShown), 48) + 'px';
        document.getElementById('tools').hidden = false;
        const chart = echarts.init(element);
        chart.on('finished', setReady);
        const items = itemsByKind();
        chart.setOption(option(items, rowsShown));
        darkness.addEventListener('change', () => chart.setOption(option(items, rowsShown), true));
        window.addEventListener('resize', () => chart.resize());
        document.getElementById('tools').addEventListener('click', (event) => {
            const what = event.target.dataset.zoom;
            if (what) zoom(chart, what);
        });
    }

    draw();
})();
