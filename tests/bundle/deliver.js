// Run in the page as the body of a function whose argument is how many frames the server delivers
// at once. In place of the server and the clock; notes what the page asks for, draws and counts.
const delivered = arguments[0];
const frames = Array.from({length: delivered}, (_, i) => ({
    number: i + 1,
    x: i + 501 - delivered, // the last one lies in the middle
    y: 500,
    hue: 120,
}));
const answers = [{channel: 1}, {frames}]; // then none: the services are gone
window.seen = {asked: [], drawn: [], counted: 0};

window.fetch = async (_, {body}) => {
    seen.asked.push(JSON.parse(body).params);
    return {json: async () => ({result: answers.shift()})};
};

let clock = 0; // milliseconds
performance.now = () => clock += 500; // as if the page counted for half a second each time

CanvasRenderingContext2D.prototype.fillText = function (...words) {
    seen.drawn.push([this.font, ...words].join(' '));
};

const number = document.getElementById('dps');
new MutationObserver(() => seen.counted += number.textContent / 2).observe(number, {childList: true});
