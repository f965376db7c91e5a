const element = id => document.getElementById(id);
const canvas = document.querySelector('canvas');
const picture = canvas.getContext('2d');
const mostWaiting = 50; // frames: the two seconds that the server delivers at most
let waiting = []; // frames that are delivered and not yet drawn
let drawn = 0; // frames
let clicks = 0; // each click ends what the one before it started

async function rpc(method, params) {
    const response = await fetch('/rpc', {
        method: 'POST',
        headers: {'Content-Type': 'application/json'}, // the services take nothing else
        body: JSON.stringify({jsonrpc: '2.0', id: 1, method, params}),
        signal: AbortSignal.timeout(2000), // milliseconds
    });
    return (await response.json()).result ?? Promise.reject(Error());
}

// Asks for the new frames once a second. After a failure it opens another channel, so the picture
// comes back when the services do.
element('open').onclick = async () => {
    const click = ++clicks;
    let channel = 0, last = 0;
    while (click === clicks) {
        const start = performance.now(), before = drawn;
        let status = 'The services do not answer. Trying again.';
        try {
            if (!channel) [{channel}, last] = [await rpc('channel.open'), 0];
            const {frames} = await rpc('channel.frames', {channel, after: last});
            if (last && !frames.length) throw Error(); // the channel is another page's by now
            status = `Channel ${channel} is open.`;
            last = frames.at(-1)?.number ?? last;
            waiting = [...waiting, ...frames].slice(-mostWaiting);
        } catch {
            channel = 0;
        }
        if (click === clicks) element('status').textContent = status;
        await new Promise(resolve => setTimeout(resolve, 1000));
        const seconds = (performance.now() - start) / 1000;
        if (click === clicks) element('dps').textContent = Math.round((drawn - before) / seconds);
    }
};

function draw(frame) {
    for (let bar = 0; bar < 8; ++bar) { // the background of a test picture
        picture.fillStyle = `hsl(218, 25%, ${24 - 2 * bar}%)`;
        picture.fillRect(bar * 120, 0, canvas.width, canvas.height);
    }
    picture.fillStyle = `hsl(${frame.hue}, 60%, 65%)`;
    picture.beginPath();
    picture.arc(frame.x * .96, frame.y * .54, 40, 0, 7);
    picture.fill();
    picture.font = '22px sans-serif';
    picture.fillText(`frame ${frame.number}`, 24, 512);
    canvas.dataset.frame = frame.number;
    ++drawn;
}

setInterval(() => {
    if (waiting.length > 40) waiting.shift(); // it falls behind: every other frame
    if (waiting.length) draw(waiting.shift());
}, 40); // milliseconds: 25 pictures a second
