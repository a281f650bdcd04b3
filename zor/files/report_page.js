// The inspection report's page: draws the colour bar, the histogram and the 3D view
// from the JSON and base64 blobs that the C++ side writes into the page. Embedded into
// the library at build time (report_assets.cpp.in).
(function () {
  const data = JSON.parse(document.getElementById('zor-data').textContent);
  const status = document.getElementById('zor-status');
  function bytesOf(id) {
    const el = document.getElementById(id);
    if (!el) return null;
    const text = atob(el.textContent.trim());
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    return bytes.buffer;
  }
  function rgb(c) { return 'rgb(' + c[0] + ',' + c[1] + ',' + c[2] + ')'; }

  // Colour bar: the stops the map uses, from -2.5 to +2.5 ranges.
  const bar = document.getElementById('zor-colourbar');
  if (bar) {
    const g = bar.getContext('2d');
    const n = data.stops.length;
    for (let i = 0; i < n; ++i) {
      g.fillStyle = rgb(data.stops[i]);
      g.fillRect(Math.floor(i * bar.width / n), 0, Math.ceil(bar.width / n) + 1, bar.height);
    }
  }

  // Histogram of the signed distances, the tolerance band shaded.
  const hist = document.getElementById('zor-histogram');
  if (hist) {
    const g = hist.getContext('2d');
    const w = hist.width, h = hist.height, pad = 18;
    g.fillStyle = '#fff';
    g.fillRect(0, 0, w, h);
    const span = data.histogram.span, bins = data.histogram.counts;
    const x = function (v) { return (v + span) / (2 * span) * w; };
    g.fillStyle = 'rgba(0, 160, 0, 0.12)';
    g.fillRect(x(-data.range), 0, x(data.range) - x(-data.range), h - pad);
    let top = 1;
    for (const c of bins) top = Math.max(top, c);
    for (let i = 0; i < bins.length; ++i) {
      const bh = (h - pad - 4) * Math.sqrt(bins[i] / top);
      g.fillStyle = rgb(data.histogram.colours[i]);
      g.fillRect(i * w / bins.length + 0.5, h - pad - bh, w / bins.length - 1, bh);
    }
    g.strokeStyle = '#080';
    g.setLineDash([4, 3]);
    for (const v of [-data.range, data.range]) {
      g.beginPath(); g.moveTo(x(v), 0); g.lineTo(x(v), h - pad); g.stroke();
    }
    g.setLineDash([]);
    g.fillStyle = '#333';
    g.font = '11px sans-serif';
    g.textAlign = 'left'; g.fillText((-span).toPrecision(3), 2, h - 4);
    g.textAlign = 'center'; g.fillText('0', w / 2, h - 4);
    g.textAlign = 'right'; g.fillText(span.toPrecision(3), w - 2, h - 4);
  }

  const canvas = document.getElementById('zor-view');
  if (typeof THREE === 'undefined' || !data.hasMesh) {
    document.body.dataset.drawn = '1';
    document.body.dataset.painted = '0';
    return;
  }
  let renderer;
  try {
    renderer = new THREE.WebGLRenderer({canvas: canvas, antialias: true, preserveDrawingBuffer: true});
  } catch (e) {
    status.textContent = 'This browser could not start WebGL: ' + e.message;
    document.body.dataset.drawn = '1';
    document.body.dataset.painted = '0';
    return;
  }
  renderer.setPixelRatio(window.devicePixelRatio || 1);
  const scene = new THREE.Scene();
  scene.background = new THREE.Color(0xf4f5f7);
  const camera = new THREE.PerspectiveCamera(35, 1, 0.001, 1e7);
  scene.add(new THREE.AmbientLight(0xffffff, 0.55));
  const light = new THREE.DirectionalLight(0xffffff, 0.6);
  camera.add(light);
  light.position.set(0.5, 1, 2);
  scene.add(camera);

  function meshOf(prefix, colours) {
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(bytesOf(prefix + '-xyz')), 3));
    geometry.setIndex(new THREE.BufferAttribute(new Uint32Array(bytesOf(prefix + '-corners')), 1));
    if (colours) geometry.setAttribute('color', new THREE.BufferAttribute(new Uint8Array(bytesOf(prefix + '-rgb')), 3, true));
    geometry.computeVertexNormals();
    geometry.computeBoundingSphere();
    return geometry;
  }
  const moving = meshOf('zor-moving', true);
  const movingMesh = new THREE.Mesh(moving, new THREE.MeshPhongMaterial({
    vertexColors: THREE.VertexColors, side: THREE.DoubleSide, shininess: 20}));
  scene.add(movingMesh);
  let ghost = null;
  if (data.hasGhost) {
    ghost = new THREE.Mesh(meshOf('zor-fixed', false), new THREE.MeshBasicMaterial({
      color: 0x8090a0, transparent: true, opacity: 0.15, depthWrite: false, side: THREE.DoubleSide}));
    scene.add(ghost);
    const toggle = document.getElementById('zor-ghost');
    toggle.addEventListener('change', function () { ghost.visible = toggle.checked; draw(); });
  }
  const sphere = moving.boundingSphere;
  const radius = Math.max(sphere.radius, 1e-6);
  if (data.largestAt) {
    const marker = new THREE.Mesh(new THREE.SphereBufferGeometry(radius * 0.015, 16, 12),
                                  new THREE.MeshBasicMaterial({color: 0xd000d0}));
    marker.position.set(data.largestAt[0], data.largestAt[1], data.largestAt[2]);
    scene.add(marker);
  }

  // Orbit about a target: drag turns, the wheel zooms, a right or shift drag pans.
  const target = sphere.center.clone();
  let distance = radius / Math.tan(camera.fov * Math.PI / 360) * 1.15;
  let yaw = 0.6, pitch = 0.45;
  function place() {
    const c = Math.cos(pitch);
    camera.position.set(target.x + distance * c * Math.sin(yaw), target.y + distance * Math.sin(pitch),
                        target.z + distance * c * Math.cos(yaw));
    camera.near = distance / 1000;
    camera.far = distance * 100;
    camera.lookAt(target);
    camera.updateProjectionMatrix();
  }
  function resize() {
    const w = canvas.clientWidth, h = canvas.clientHeight;
    renderer.setSize(w, h, false);
    camera.aspect = w / Math.max(h, 1);
  }
  function draw() { place(); renderer.render(scene, camera); }
  let dragging = null;
  canvas.addEventListener('contextmenu', function (e) { e.preventDefault(); });
  canvas.addEventListener('pointerdown', function (e) {
    dragging = {x: e.clientX, y: e.clientY, pan: e.button === 2 || e.shiftKey};
    canvas.setPointerCapture(e.pointerId);
  });
  canvas.addEventListener('pointerup', function () { dragging = null; });
  canvas.addEventListener('pointermove', function (e) {
    if (!dragging) return;
    const dx = e.clientX - dragging.x, dy = e.clientY - dragging.y;
    dragging.x = e.clientX; dragging.y = e.clientY;
    if (dragging.pan) {
      const scale = distance * Math.tan(camera.fov * Math.PI / 360) * 2 / canvas.clientHeight;
      const right = new THREE.Vector3().setFromMatrixColumn(camera.matrix, 0);
      const up = new THREE.Vector3().setFromMatrixColumn(camera.matrix, 1);
      target.addScaledVector(right, -dx * scale).addScaledVector(up, dy * scale);
    } else {
      yaw -= dx * 0.008;
      pitch = Math.max(-1.55, Math.min(1.55, pitch + dy * 0.008));
    }
    draw();
  });
  canvas.addEventListener('wheel', function (e) {
    e.preventDefault();
    distance *= Math.exp(e.deltaY * 0.001);
    draw();
  }, {passive: false});
  window.addEventListener('resize', function () { resize(); draw(); });
  resize();
  draw();

  // How much of the view is drawn: pixels that differ from the background.
  const gl = renderer.getContext();
  const w = gl.drawingBufferWidth, h = gl.drawingBufferHeight;
  const pixels = new Uint8Array(w * h * 4);
  gl.readPixels(0, 0, w, h, gl.RGBA, gl.UNSIGNED_BYTE, pixels);
  let painted = 0;
  for (let i = 0; i < pixels.length; i += 4)
    if (Math.abs(pixels[i] - 244) + Math.abs(pixels[i + 1] - 245) + Math.abs(pixels[i + 2] - 247) > 12) ++painted;
  document.body.dataset.painted = String(painted);
  document.body.dataset.drawnAfterMs = String(Math.round(performance.now()));  // since the page was opened
  document.body.dataset.drawn = '1';
})();
